#include "kernel/apps/mail.h"

#include <algorithm>

#include "kernel/apps/shell.h"
#include "kernel/apps/timeline_list.h"
#include "kernel/core/heap_ptr.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/string.h"
#include "kernel/graph/actor.h"

namespace {

constexpr const char* USAGE =
    "Usage: mail [list [USER]] | send USER SUBJECT TEXT... | read N | rm N | at TICK | save | "
    "load\n";
constexpr const char* LOCAL_USER = "admin";  // the machine has one

enum mail_text_t : int { FROM, TO, SUBJECT, BODY, TEXTS };

constinit timeline_list_t mails = {"mail", 32, TEXTS, {}, {}};
static_assert(MAIL_MAX == LIST_ITEMS_MAX && TEXTS <= LIST_TEXTS_MAX);
static_assert(ACTOR_DATA_MAX <= LIST_DATA_MAX);

mutex_t letters_lock;  // one letter on its way at a time

/// A letter: the texts one behind the other, each with its terminator.
struct letter_t {
    uint32_t len;
    char texts[ACTOR_DATA_MAX];

    /// Adds a text, cut to `size` with its terminator and to what is left.
    void add(const char* text, uint32_t size) {
        const uint32_t room = std::min(size, ACTOR_DATA_MAX - len);
        if (room > 0)
            len += string_copy(texts + len, text, room) + 1;
    }
};
static_assert(2 * MAIL_WHO_SIZE + MAIL_SUBJECT_SIZE < ACTOR_DATA_MAX);

/// Takes the next text off a message, cleaned, into `out`; false when there is none.
bool next_text(const actor_msg_t& msg, uint32_t* at, char* out, uint32_t size) {
    char field[ACTOR_DATA_MAX] = {};
    const auto* begin = reinterpret_cast<const char*>(msg.data) + *at;
    const auto* end = std::find(begin, reinterpret_cast<const char*>(msg.data) + msg.len, '\0');
    const auto len = static_cast<uint32_t>(end - begin);
    if (*at + len == msg.len)
        return false;
    memcpy(field, begin, len);
    string_clean(out, field, size);
    *at += len + 1;
    return true;
}

/// Puts a letter into the mailbox; its number, -1 when it is none or there is no room.
int take_letter(const actor_msg_t& msg) {
    char from[MAIL_WHO_SIZE];
    char to[MAIL_WHO_SIZE];
    char subject[MAIL_SUBJECT_SIZE];
    char body[MAIL_BODY_SIZE];
    char desc[MAIL_WHO_SIZE + MAIL_SUBJECT_SIZE + 8];
    uint32_t at = 0;
    if (msg.type != MAIL_LETTER || !next_text(msg, &at, from, sizeof from) ||
        !next_text(msg, &at, to, sizeof to) || !next_text(msg, &at, subject, sizeof subject) ||
        !next_text(msg, &at, body, sizeof body))
        return -1;
    ksnprintf(desc, sizeof desc, "mail to %s: %s", to, subject);
    const char* texts[TEXTS] = {from, to, subject, body};
    return list_add(&mails, texts, desc);
}

/// Takes in all letters that wait; the number of the one that is `own`, -1 when it had no place.
int take_letters(const letter_t* own) REQUIRES(letters_lock) {
    actor_msg_t msg;
    int number = -1;
    while (actor_recv(actor_find(mails.name), &msg) == 0) {
        const int taken = take_letter(msg);
        if (own != nullptr && msg.len == own->len && memcmp(msg.data, own->texts, msg.len) == 0)
            number = taken;
    }
    return number;
}

void print_line(const list_item_t& mail) {
    kprintf("  %c [%u] T+%u %s -> %s: %s\n", mail.marked ? ' ' : 'N', mail.number, mail.tick,
            mail.text(FROM), mail.text(TO), mail.text(SUBJECT));
}

/// Prints all mails, or those to `user`.
void list(const char* user) {
    list_item_t mail;
    int shown = 0;
    for (int i = 0; list_at(&mails, i, &mail); ++i) {
        if (user != nullptr && strcmp(mail.text(TO), user) != 0)
            continue;
        print_line(mail);
        ++shown;
    }
    if (shown == 0)
        kprintf("No mail\n");
}

void send(int argc, char** argv) {
    char body[MAIL_BODY_SIZE];
    shell_concat_args(body, sizeof body, argc, argv, 4);
    const int number = mail_send(LOCAL_USER, argv[2], argv[3], body);
    if (number > 0)
        kprintf("Mail %d sent to %s\n", number, argv[2]);
    else
        kprintf("mail: no room, %d mails are the most\n", MAIL_MAX);
}

void show(uint32_t number, const list_item_t& mail) {
    kprintf("From:    %s\nTo:      %s\nSubject: %s\nSent:    T+%u\n\n", mail.text(FROM),
            mail.text(TO), mail.text(SUBJECT), mail.tick);
    kprintf("%s\n", mail.text(BODY));
    list_mark(&mails, number, "mail read");
}

void on_one(const char* word, const char* arg) {
    uint32_t number;
    list_item_t mail;
    if (safe_parse_uint(arg, &number) != 0 || !list_get(&mails, number, &mail)) {
        kprintf("mail: no mail '%s'\n", arg);
        return;
    }
    if (strcmp(word, "read") == 0)
        show(number, mail);
    else if (list_remove(&mails, number, "mail removed") == 0)
        kprintf("Mail %u removed\n", number);
}

void show_then(const char* arg) {
    uint32_t tick;
    const auto items = heap_ptr<list_items_t>::make();
    if (safe_parse_uint(arg, &tick) != 0) {
        kprintf("mail: invalid tick '%s'\n", arg);
        return;
    }
    if (!items || list_then(&mails, tick, items.get()) != 0) {
        kprintf("mail: no history\n");
        return;
    }
    kprintf("Mail at T+%u: %d\n", tick, items->count);
    for (int i = 0; i < items->count; ++i)
        print_line(items->items[i]);
}

}  // namespace

void mail_init() {
    constexpr pid_t SYSTEM = -1;
    list_init(&mails);
    actor_register(mails.name, SYSTEM);
}

void mail_seed_welcome() {
    mail_send("system", LOCAL_USER, "Welcome to Vorn",
              "Every action here is a causal event. Try: why, events, tl, help.");
}

int mail_send(const char* from, const char* to, const char* subject, const char* body) {
    letter_t letter = {};
    letter.add(from, MAIL_WHO_SIZE);
    letter.add(to, MAIL_WHO_SIZE);
    letter.add(subject, MAIL_SUBJECT_SIZE);
    letter.add(body, MAIL_BODY_SIZE);
    const mutex_guard guard(letters_lock);
    take_letters(nullptr);
    if (actor_send_by_name(mails.name, MAIL_LETTER, letter.texts, letter.len) != 0)
        return -1;
    return take_letters(&letter);
}

void cmd_mail(int argc, char** argv) {
    const char* word = argc > 1 ? argv[1] : "list";
    {
        const mutex_guard guard(letters_lock);
        take_letters(nullptr);
    }
    if (strcmp(word, "list") == 0)
        list(argc > 2 ? argv[2] : nullptr);
    else if (strcmp(word, "save") == 0)
        kprintf(list_save(&mails) == 0 ? "Mail saved\n" : "mail: save failed (no disk?)\n");
    else if (strcmp(word, "load") == 0)
        kprintf(list_load(&mails) == 0 ? "Mail loaded\n" : "mail: nothing to load\n");
    else if (argc > 4 && strcmp(word, "send") == 0)
        send(argc, argv);
    else if (argc > 2 && strcmp(word, "at") == 0)
        show_then(argv[2]);
    else if (argc > 2 && (strcmp(word, "read") == 0 || strcmp(word, "rm") == 0))
        on_one(word, argv[2]);
    else
        kprintf("%s", USAGE);
}
