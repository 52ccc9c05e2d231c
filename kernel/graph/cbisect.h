// `cbisect`: when a count of the system first reached a threshold.
#pragma once

/// `cbisect <metric> <threshold>`: searches the ticks from 0 to now by halves, with a replay for
/// each probe, and says what happened where the metric crossed the threshold.
void cmd_cbisect(int argc, char** argv);
