// The text screen of the fake machine, in the shape of the real header.
#pragma once

#include <stdint.h>

constexpr int VGA_COLUMNS = 80;
constexpr int VGA_ROWS = 25;
constexpr int VGA_CELLS = VGA_COLUMNS * VGA_ROWS;

inline uint16_t vga_cells[VGA_CELLS];

inline uint16_t* vga_text() { return vga_cells; }
