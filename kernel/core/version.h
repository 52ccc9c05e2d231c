// The system's own name, once.
#pragma once

inline constexpr const char* VORN_VERSION = "0.1.0";
inline constexpr const char* VORN_LONG_NAME = "A Causal Graph-Native Operating System";
