// Mail, notes and the `tl` command on a machine with a volume.
#include "kernel/apps/cmd_timeline.h"
#include "kernel/apps/mail.h"
#include "kernel/apps/notes.h"
#include "kernel/fs/ramfs.h"
#include "kernel/graph/actor.h"
#include "kernel/graph/timeline.h"
#include "tests/unit/fs/volume.h"

namespace {

class TimelineApps : public Volume {
protected:
    void SetUp() override {
        ASSERT_EQ(mount(), 0);
        fs_init();
        timeline_init();
        actor_init();
        mail_init();
        notes_init();
        machine_texts().clear();
    }
    static std::string note(std::vector<std::string> args) { return run(cmd_note, args); }
    static std::string mail(std::vector<std::string> args) { return run(cmd_mail, args); }
    static std::string tl(std::vector<std::string> args) { return run(cmd_timeline, args); }
};

TEST_F(TimelineApps, NotesAreWhatTheirHistoryAddsUpTo) {
    EXPECT_EQ(note({}), "No notes\n");
    system_ticks = 10;
    EXPECT_EQ(note({"add", "buy", "milk"}), "Note 1 added\n");
    EXPECT_EQ(note({"add", "call\x1b[2J"}), "Note 2 added\n");
    system_ticks = 20;
    EXPECT_EQ(note({"rm", "1"}), "Note 1 removed\n");
    EXPECT_EQ(note({"rm", "1"}), "note: no note '1'\n");
    EXPECT_EQ(note({"at", "10"}), "Notes at T+10: 2\n  [1] T+10 buy milk\n  [2] T+10 call?[2J\n");
    EXPECT_EQ(note({"save"}), "Notes saved\n");
    EXPECT_EQ(note({"add", "lost"}), "Note 3 added\n");
    EXPECT_EQ(note({"load"}), "Notes loaded\n");
    EXPECT_EQ(note({"list"}), "  [2] T+20 call?[2J\n");
    EXPECT_EQ(note({"add", "next"}), "Note 3 added\n");

    for (int i = 4; i <= NOTES_MAX + 1; ++i)
        EXPECT_EQ(notes_add("filler"), i);
    EXPECT_EQ(notes_add("too many"), -1);
    // What has left the ring is saved all the same, and a deleted timeline begins anew.
    for (uint32_t i = 0; i < CAUSAL_RING_SLOTS; ++i)
        causal_emit(CAUSAL_USER, "test", "x", nullptr, 0);
    EXPECT_EQ(note({"save"}), "Notes saved\n");
    timeline_destroy(timeline_find("note"));
    notes_init();
    EXPECT_EQ(note({"load"}), "Notes loaded\n");
    EXPECT_EQ(notes_add("too many"), -1);
    timeline_destroy(timeline_find("note"));
    EXPECT_EQ(note({"rm", "5"}), "Note 5 removed\n");

    // A saved copy that is none leaves the notes as they are.
    write("/timeline/note.tl", {1, 2, 3});
    EXPECT_EQ(note({"load"}), "note: nothing to load\n");
    EXPECT_EQ(note({"show", "7"}), "  [7] T+20 filler\n");
    EXPECT_EQ(note({"frob"}).substr(0, 6), "Usage:");
}

TEST_F(TimelineApps, HistoriesThatLieDamageNoList) {
    const int id = timeline_find("note");
    for (const std::string& data :
         {std::string(), std::string("\1\0\0", 3), std::string("\1\0\0\0", 4),
          std::string("\2\0\0\0open end", 12), std::string("\3\0\0\0two\0texts\0", 14),
          std::string("\4\0\0\0\x1b[2J\0", 9), std::string("\0\0\0\0none\0", 9),
          std::string("\xFF\xFF\xFF\xFFlast\0", 9), std::string("\5\0\0\0sound\0", 10)})
        timeline_emit(id, 16, data.data(), static_cast<uint32_t>(data.size()), "forged");
    timeline_emit(id, 18, "\7\0\0\0", 4, "removes what is not there");
    ASSERT_EQ(timeline_persist(id), 0);
    EXPECT_EQ(note({"load"}), "Notes loaded\n");
    EXPECT_EQ(note({"list"}), "  [5] T+0 sound\n");
    EXPECT_EQ(note({"add", "next"}), "Note 6 added\n");
}

TEST_F(TimelineApps, MailIsSentReadAndKept) {
    mail_seed_welcome();
    mail({"send", "eve", std::string(100, 's'), std::string(300, 'b')});
    EXPECT_EQ(mail({"list", "eve"}), "  N [2] T+0 admin -> eve: " + std::string(47, 's') + "\n");
    EXPECT_NE(mail({"read", "2"}).find("\n\n" + std::string(197, 'b') + "\n"), std::string::npos);
    const uint32_t events = timeline_get(timeline_find("mail"))->event_count;
    mail({"read", "2"});
    EXPECT_EQ(timeline_get(timeline_find("mail"))->event_count, events);  // read once
    EXPECT_EQ(mail({"save"}), "Mail saved\n");
    EXPECT_EQ(mail({"rm", "2"}), "Mail 2 removed\n");
    EXPECT_EQ(mail({"load"}), "Mail loaded\n");
    EXPECT_NE(mail({}).find("    [2] T+0 admin -> eve: sss"), std::string::npos);
}

TEST_F(TimelineApps, LettersComeFromAnyActor) {
    const auto post = [](const std::string& letter, uint32_t type = 32) {
        return actor_send_by_name("mail", type, letter.data(),
                                  static_cast<uint32_t>(letter.size()));
    };
    EXPECT_EQ(post(std::string("pr\x1bg\0admin\0hi\0there\0", 21)), 0);
    EXPECT_EQ(post(std::string("no\0end\0of\0it", 12)), 0);
    EXPECT_EQ(post(std::string("three\0texts\0only\0", 17)), 0);
    EXPECT_EQ(post(std::string("a\0b\0c\0wrong type\0", 17), 33), 0);
    EXPECT_EQ(post(std::string(256, '\0')), 0);
    EXPECT_EQ(mail({}), "  N [1] T+0 pr?g -> admin: hi\n  N [2] T+0  -> : \n");
    while (post("junk") == 0) {
    }
    EXPECT_EQ(mail({"send", "eve", "s", "t"}), "Mail 3 sent to eve\n");
    for (int i = 4; i <= MAIL_MAX; ++i)
        EXPECT_EQ(mail_send("a", "b", "same", "same"), i);
    EXPECT_EQ(mail_send("a", "b", "same", "same"), -1);
}

TEST_F(TimelineApps, TheCommandChangesAndCompares) {
    EXPECT_EQ(tl({"create", "w", "app"}), "Created timeline 2: w (app)\n");
    const auto id = [](int back) {
        return std::to_string(causal_total_events() - static_cast<uint32_t>(back));
    };
    system_ticks = 5;
    std::string said = tl({"emit", "w", "two", "words"});
    EXPECT_EQ(said, "Emitted event " + id(0) + "\n");
    timeline_emit(2, 77, nullptr, 0, "odd");
    system_ticks = 9;
    said = tl({"mark", "w", "v1", "done"});
    const std::string mark = id(0);
    EXPECT_EQ(said, "Marked w at event " + mark + ": v1 done\n");
    EXPECT_EQ(tl({"diff", "w", "1", "head"}),
              "Timeline diff: 1 -> head\n  events_added=3 events_removed=0 changed=3 data=1 "
              "marks=1 checkpoints=0 deletes=0 creates=0 unknown=1\n  + [" +
                  id(2) + "] T+5 data       two words\n  + [" + id(1) +
                  "] T+5 unknown    odd\n  + [" + id(0) + "] T+9 mark       mark: v1 done\n");
    EXPECT_EQ(tl({"diff", "w", "1", "9"}), "tl: no endpoint '9'\n");
    EXPECT_EQ(tl({"rewind", "w", "T+6"}), "Rewound to T+5\n");
    EXPECT_NE(tl({"stats", "w"})
                  .find("  events=4 live=4 cursor=T+5 head=T+9 rewound\n"
                        "  span=9 ticks\n  persisted=no\n"),
              std::string::npos);
    EXPECT_EQ(tl({"forward", "w", "+9"}), "Forwarded to T+9\n");
    EXPECT_EQ(tl({"export", "w", "/docs/w.txt", "1"}), "Exported 48 bytes to /docs/w.txt\n");
    const bytes_t text = read("/docs/w.txt");
    EXPECT_EQ(std::string(text.begin(), text.end()),
              "# w (app), 4 events\n[" + mark + "] T+9 app: mark: v1 done\n");
    EXPECT_EQ(tl({"payload-test"}),
              "timeline payload-test: PASS legacy=yes envelope=yes "
              "schema=timeline.event\n");
    EXPECT_EQ(tl({"show", "__payload_test"}), "Timeline '__payload_test' not found\n");
    for (const std::vector<std::string>& wrong :
         {std::vector<std::string>{"show"}, {"frob", "w"}, {"diff", "w", "1"}, {"create"}})
        EXPECT_EQ(tl(wrong),
                  "Usage: tl [show|stats|diff|find|mark|marks|rewind|forward|at|create|"
                  "emit|save|export|load|delete] ...\n");
}

TEST_F(TimelineApps, RewindMovesAllOrOne) {
    system_ticks = 50;
    notes_add("later");
    EXPECT_EQ(run(cmd_rewind, {"20", "note"}), "Rewound to T+20: 1 timelines\n");
    EXPECT_NE(run(cmd_rewind, {}).find("note                 T+0 (rewound)\n"), std::string::npos);
    EXPECT_EQ(run(cmd_rewind, {"now"}), "Back to now: 2 timelines\n");
    EXPECT_EQ(timeline_cursor_tick(timeline_find("note")), 50u);
}

}  // namespace
