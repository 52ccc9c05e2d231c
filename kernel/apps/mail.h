// Mail within the machine, kept on the timeline "mail": sending, reading and removing are events of
// it, and the mailbox is what they add up to. At most MAIL_MAX mails; a full mailbox takes no more.
//
// Letters reach it as messages of type MAIL_LETTER to the actor "mail", whoever sends them: the
// four texts sender, receiver, subject and body, each with its terminator. They are taken in when
// one is sent from here and whenever the command runs; what is no letter is dropped.
//
// The mailbox changes under a sleeping mutex. Task context.
#pragma once

#include <stdint.h>

constexpr int MAIL_MAX = 64;
constexpr uint32_t MAIL_WHO_SIZE = 24;  ///< with the terminator, as the others
constexpr uint32_t MAIL_SUBJECT_SIZE = 48;
constexpr uint32_t MAIL_BODY_SIZE = 256;
constexpr uint32_t MAIL_LETTER = 32;

/// Empties the mailbox, creates the timeline and registers the actor. Start-up, once.
void mail_init();

/// Puts a welcome into the mailbox. Start-up, once.
void mail_seed_welcome();

/// Sends a mail; its number, or -1 when the mailbox is full or nothing could be recorded. Longer
/// texts are cut, the body so that all fit one message.
int mail_send(const char* from, const char* to, const char* subject, const char* body);

/// `mail`: see its usage line.
void cmd_mail(int argc, char** argv);
