// The front-panel error LED.
#pragma once

// The number of LED flashes per round of an error blink code.
enum ErrorLedPattern : int {
    ERROR_LED_MEMORY = 2,     // memory failures and unexpected exceptions
    ERROR_LED_ETHERNET = 7,   // Ethernet failures
};
