// `cprof`: how causality flows between kinds of activity.
#pragma once

/// `cprof [count]`: counts every edge from a cause to an effect among the newest `count` events (1
/// to 8192, 2048 without one) by the two types it joins, with the time between them.
void cmd_cprof(int argc, char** argv);
