// The VGA text screen's memory. The host tests replace this header with a plain array.
#pragma once

#include <stdint.h>

constexpr int VGA_COLUMNS = 80;
constexpr int VGA_ROWS = 25;
constexpr int VGA_CELLS = VGA_COLUMNS * VGA_ROWS;

/// The cells, row by row: the character in the low byte, its colours in the high byte.
inline uint16_t* vga_text() { return reinterpret_cast<uint16_t*>(0xB8000); }
