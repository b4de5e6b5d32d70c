// The front-panel error LED.
#pragma once

// The number of LED flashes per round of an error blink code.
enum ErrorLedPattern : int {
    ERROR_LED_GENERAL = 2,  // memory failures and every unexpected exception
    ERROR_LED_ETHERNET = 7, // Ethernet failures
};
