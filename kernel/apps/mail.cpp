#include "kernel/apps/mail.h"

#include "kernel/apps/shell.h"
#include "kernel/apps/timeline_list.h"
#include "kernel/core/heap_ptr.h"
#include "kernel/core/kprintf.h"
#include "kernel/core/string.h"

namespace {

constexpr const char* USAGE =
    "Usage: mail [list [USER]] | send USER SUBJECT TEXT... | read N | rm N | at TICK | save | "
    "load\n";
constexpr const char* LOCAL_USER = "admin";  // the machine has one

enum mail_text_t : int { FROM, TO, SUBJECT, BODY, TEXTS };

constinit timeline_list_t mails = {"mail", 32, TEXTS, {}, {}};
static_assert(MAIL_MAX == LIST_ITEMS_MAX && TEXTS <= LIST_TEXTS_MAX);
static_assert(2 * MAIL_WHO_SIZE + MAIL_SUBJECT_SIZE + MAIL_BODY_SIZE <= LIST_DATA_MAX);

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

void mail_init() { list_init(&mails); }

void mail_seed_welcome() {
    mail_send("system", LOCAL_USER, "Welcome to Vorn",
              "Every action here is a causal event. Try: why, events, tl, help.");
}

int mail_send(const char* from, const char* to, const char* subject, const char* body) {
    char who_from[MAIL_WHO_SIZE];
    char who_to[MAIL_WHO_SIZE];
    char about[MAIL_SUBJECT_SIZE];
    char text[MAIL_BODY_SIZE];
    char desc[MAIL_WHO_SIZE + MAIL_SUBJECT_SIZE + 8];
    string_clean(who_from, from, sizeof who_from);
    string_clean(who_to, to, sizeof who_to);
    string_clean(about, subject, sizeof about);
    string_clean(text, body, sizeof text);
    ksnprintf(desc, sizeof desc, "mail to %s: %s", who_to, about);
    const char* texts[TEXTS] = {who_from, who_to, about, text};
    return list_add(&mails, texts, desc);
}

void cmd_mail(int argc, char** argv) {
    const char* word = argc > 1 ? argv[1] : "list";
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
