// Call shapes of the module's GPIO helpers, over /sys/class/gpio.
#pragma once

extern "C" {
// Sets a line up.
//   direction   0 input, 1 output that is low, 2 output that is high
//   active_low  1: the levels are inverted
//   fresh       1: the line is exported first, unless it is; 0: it was before
// 0, or -1.
int GpioInit(int line, int direction, int active_low, int fresh);
// Drives an output: 0 low, anything else high. 0, or -1.
int gpio_set_value(int line, int value);
}
