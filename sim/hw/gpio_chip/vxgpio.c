// SPDX-License-Identifier: GPL-2.0
/*
 * The simulated player's GPIO chip: 32 lines from global number 64, for the
 * legacy sysfs interface (/sys/class/gpio). An input line reads the level
 * that bit n of the "levels" parameter gives line 64 + n; the parameter can
 * be changed at any time through /sys/module/vxgpio/parameters/levels
 * (decimal, or hexadecimal with 0x). A line set to output reads back the
 * level last driven on it.
 */
#include <linux/bitops.h>
#include <linux/gpio/driver.h>
#include <linux/module.h>

static unsigned long vxgpio_levels;  /* input levels */
static unsigned long vxgpio_outputs; /* lines set to output */
static unsigned long vxgpio_driven;  /* levels driven on the outputs */

module_param_named(levels, vxgpio_levels, ulong, 0644);
MODULE_PARM_DESC(levels, "input levels, bit n for line 64 + n");

static int vxgpio_get_direction(struct gpio_chip *gc, unsigned int line)
{
	return test_bit(line, &vxgpio_outputs) ? GPIO_LINE_DIRECTION_OUT
					       : GPIO_LINE_DIRECTION_IN;
}

static int vxgpio_get(struct gpio_chip *gc, unsigned int line)
{
	return test_bit(line, test_bit(line, &vxgpio_outputs) ? &vxgpio_driven
							      : &vxgpio_levels);
}

static void vxgpio_set(struct gpio_chip *gc, unsigned int line, int value)
{
	assign_bit(line, &vxgpio_driven, value);
}

static int vxgpio_direction_input(struct gpio_chip *gc, unsigned int line)
{
	clear_bit(line, &vxgpio_outputs);
	return 0;
}

static int vxgpio_direction_output(struct gpio_chip *gc, unsigned int line, int value)
{
	assign_bit(line, &vxgpio_driven, value);
	set_bit(line, &vxgpio_outputs);
	return 0;
}

static struct gpio_chip vxgpio_chip = {
	.label = "vxgpio",
	.owner = THIS_MODULE,
	.base = 64,
	.ngpio = 32,
	.get_direction = vxgpio_get_direction,
	.direction_input = vxgpio_direction_input,
	.direction_output = vxgpio_direction_output,
	.get = vxgpio_get,
	.set = vxgpio_set,
};

static int __init vxgpio_init(void)
{
	return gpiochip_add_data(&vxgpio_chip, NULL);
}

static void __exit vxgpio_exit(void)
{
	gpiochip_remove(&vxgpio_chip);
}

module_init(vxgpio_init);
module_exit(vxgpio_exit);
MODULE_DESCRIPTION("Simulated GPIO lines 64 to 95");
MODULE_LICENSE("GPL");
