// Capsules: everything known of one event as a portable text, printed and kept under "/capsule" on
// the volume, so that it can leave the machine as the record of an incident.
#pragma once

/// `capsule <event-id|first|last>`. Task context; one capsule is made at a time.
void cmd_capsule(int argc, char** argv);
