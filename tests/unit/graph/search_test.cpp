#include "kernel/graph/search.h"

#include <algorithm>
#include <map>
#include <random>

#include "kernel/apps/cmd_whatif.h"
#include "kernel/graph/cjournal/internal.h"
#include "kernel/graph/event_walk.h"
#include "tests/unit/graph/causal_fixture.h"
#include "tests/unit/graph/journal.h"

namespace {

using words_t = std::vector<std::string>;
using ids_t = std::vector<uint32_t>;

/// The index as anybody would write it, from `events` in the order of their numbers.
class naive_index {
public:
    void take(uint32_t id, const std::string& desc) {
        std::string word;
        int words = 0;
        for (const char c : desc + " ") {
            if (isalnum(static_cast<unsigned char>(c)) || c == '_') {
                word += static_cast<char>(tolower(c));
            } else if (!word.empty()) {
                if (++words <= 16)
                    put(word.substr(0, 15), id);
                word.clear();
            }
        }
    }
    ids_t query(const std::string& left, const std::string& op, const std::string& right) const {
        ids_t found;
        for (const uint32_t id : at(left))
            if (op != "AND" || std::count(at(right).begin(), at(right).end(), id) != 0)
                found.push_back(id);
        for (const uint32_t id : op == "OR" ? at(right) : ids_t{})
            if (found.size() < 64 && std::count(found.begin(), found.end(), id) == 0)
                found.push_back(id);
        std::sort(found.rbegin(), found.rend());
        return found;
    }
    size_t size() const { return terms_.size(); }

private:
    void put(const std::string& word, uint32_t id) {
        if (!terms_.contains(word) && terms_.size() == 256)
            return;
        ids_t& ids = terms_[word];
        if (std::count(ids.begin(), ids.end(), id) == 0 && ids.size() < 64)
            ids.push_back(id);
    }
    const ids_t& at(const std::string& word) const {
        static const ids_t none;
        std::string lower = word.substr(0, 15);
        std::transform(lower.begin(), lower.end(), lower.begin(), tolower);
        const auto found = terms_.find(lower);
        return found == terms_.end() ? none : found->second;
    }
    std::map<std::string, ids_t> terms_;
};

ids_t query(const std::string& text, int max = 64) {
    ids_t out(64);
    out.resize(static_cast<size_t>(csearch_query(text.c_str(), out.data(), max)));
    return out;
}

class Search : public causal_fixture {};

TEST_F(Search, AnswersAsANaiveIndexDoesWithFullTables) {
    std::mt19937 random(5);
    words_t words;
    for (int i = 0; i < 290; i++)
        words.push_back("W" + std::string(random() % 18, static_cast<char>('a' + i % 26)) + "_" +
                        std::to_string(i));
    naive_index naive;
    naive.take(1, "kernel boot started");
    for (int i = 0; i < 3000; i++) {
        std::string text;
        for (uint32_t n = random() % 20; n > 0; n--)
            text += words[(random() % 17) * (random() % 18)] +
                    std::string(1, " :/=\xc3-"[random() % 6]);
        text.resize(std::min<size_t>(text.size(), 79));
        naive.take(emit({}, text.c_str()), text);
    }
    csearch_init();
    EXPECT_EQ(screen,
              "csearch: indexed 3001 events, " + std::to_string(naive.size()) + " unique terms\n");
    EXPECT_EQ(std::string(causal_get(3002)->desc),
              "search index ready: " + std::to_string(naive.size()) + " terms");
    for (int i = 0; i < 600; i++) {
        const std::string& a = words[random() % words.size()];
        const std::string& b = words[random() % 20];
        EXPECT_EQ(query(a), naive.query(a, "", ""));
        EXPECT_EQ(query(a + "   AND " + b), naive.query(a, "AND", b)) << a << " " << b;
        EXPECT_EQ(query(b + " OR " + a), naive.query(b, "OR", a)) << a << " " << b;
    }
    EXPECT_LE(query(words[0] + " OR boot", 3).size(), 3u);
}

TEST_F(Search, RefusesAndForgetsNothingElse) {
    csearch_rebuild();
    const uint32_t late = emit({}, "latecomer");
    EXPECT_EQ(query("latecomer"), ids_t{});
    csearch_rebuild();
    EXPECT_EQ(query("LateComer"), ids_t{late});
    for (const char* text :
         {"", " ", " AND ", " OR ", "boot AND", "kernel boot", "boot AND  kernel"})
        EXPECT_EQ(query(text), ids_t{}) << text;
    EXPECT_EQ(query("boot", 0), ids_t{});
    EXPECT_EQ(csearch_query(nullptr, nullptr, 5), 0);
    EXPECT_EQ(run(cmd_search, {"boot", "AND", "kernel"}),
              "Search: \"boot\" AND \"kernel\" (1 results):\n"
              "  #1     [SCHED ] kernel boot started                      T+0\n");
    EXPECT_EQ(run(cmd_search, {"never"}), "Search: \"never\" (0 results):\n  (no matches)\n");
    run(cmd_search, {std::string(400, 'x'), "OR", std::string(400, 'y')});
}

class SearchJournal : public JournalVolume {};

TEST_F(SearchJournal, AWalkShowsWhatTheStoreCanStillFetch) {
    boot();
    wait_for(2000);
    EXPECT_EQ(cjournal_spill(700), 700);
    EXPECT_EQ(cjournal_spill_through(1500), 1);
    boot();  // the ring is new, the journal is not
    wait_for(100);
    std::map<uint32_t, std::string> wanted, found;
    for (uint32_t id = 1; id <= causal_total_events(); id++)
        if (const causal_event_t* ev = causal_get(id))
            wanted[id] = ev->desc;
    uint32_t last = 0;
    event_walk_each([&](const event_facts_t& event) {
        EXPECT_GT(event.id, last);
        last = event.id;
        found[event.id] = event.desc;
        return true;
    });
    found.erase(found.upper_bound(wanted.rbegin()->first), found.end());
    EXPECT_EQ(found, wanted);
    EXPECT_EQ(wanted.count(1500), 1u);
    EXPECT_GT(wanted.size(), 800u);
    int seen = 0;
    event_walk_each([&seen](const event_facts_t&) { return ++seen < 650; });
    EXPECT_EQ(seen, 650);
    // An index that claims a billion events does not keep the walk.
    causal_set_next_id(1'000'000'000);
    causal_emit(CAUSAL_USER, "test", "far away", nullptr, 0);
    cjournal.index[0].last_id = 900'000'000;
    seen = 0;
    event_walk_each([&seen](const event_facts_t&) { return ++seen > 0; });
    EXPECT_GE(seen, 500);
}

}  // namespace
