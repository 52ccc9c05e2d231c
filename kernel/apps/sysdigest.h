// The digest: one page about the whole system.
#pragma once

#include <stdint.h>

constexpr uint32_t SYSDIGEST_BYTES = 4096;

/// The figures of the network; zeros without one.
struct sysdigest_network_t {
    int mesh_peers;
    int tcp_used, tcp_listening, tcp_established;
};

/// Records CAUSAL_USER "sysdigest" "system digest initialized". Start-up.
void sysdigest_init();

/// Installs who fills the network's figures (null: nobody). Start-up.
void sysdigest_set_network_hook(void (*fill)(sysdigest_network_t* out));

/// Writes the full report, terminated, into `out` of `size` bytes, at least 1; a piece for which
/// there is no room is left out. Its length. Task context.
int sysdigest_generate(char* out, uint32_t size);

/// `digest [tasks|actors|net|memory|causal|health]`: the report, or one of its sections.
void cmd_digest(int argc, char** argv);
