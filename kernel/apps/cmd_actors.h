// Commands about actors: who there is, where names lead, and messages from the console. All run in
// the task of the shell that dispatched them.
#pragma once

/// `actors`: the registry. `actors payload-test`: actor_payload_selftest.
void cmd_actors(int argc, char** argv);

/// `routes`: what each name leads to.
void cmd_routes(int argc, char** argv);

/// `actormap`: actors, the flows between them, and totals.
void cmd_actormap(int argc, char** argv);

/// `send <actor_name> <message...>`: sends a text.
void cmd_send(int argc, char** argv);

/// `recv <actor_name>`: takes the oldest message of a mailbox and shows it.
void cmd_recv(int argc, char** argv);

/// `watch <actor_name>`: has the shell's actor be told when an actor goes away.
void cmd_watch(int argc, char** argv);

/// `aping <actor_name> [count]`: how long a message takes by name until an actor has it. What the
/// actor has not received by then is taken back.
void cmd_aping(int argc, char** argv);
