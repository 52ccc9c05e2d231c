// A line for each key: its 64 hexadecimal digits, the segment, the root's 64 digits.
#include "tools/audit/state.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fstream>
#include <sstream>

#include "tools/audit/hex.h"

namespace {

struct memory_t {
    uint32_t segment;
    root_t32 root;
};

using memories_t = std::map<key_t32, memory_t>;

bool parse_line(const std::string& line, memories_t* memories) {
    std::istringstream words(line);
    std::string key, root, rest;
    memory_t memory = {};
    key_t32 key_bytes;
    if (!(words >> key >> memory.segment >> root) || words >> rest)
        return false;
    if (!parse_hex32(key, &key_bytes) || !parse_hex32(root, &memory.root))
        return false;
    (*memories)[key_bytes] = memory;
    return true;
}

bool load(const std::string& path, memories_t* memories) {
    std::ifstream in(path);
    if (!in) {
        if (errno == ENOENT)
            return true;
        std::fprintf(stderr, "audit: %s: %s\n", path.c_str(), std::strerror(errno));
        return false;
    }
    std::string line;
    for (int number = 1; std::getline(in, line); ++number) {
        if (line.empty() || parse_line(line, memories))
            continue;
        std::fprintf(stderr, "audit: %s:%d: not a line of a state file\n", path.c_str(), number);
        return false;
    }
    return true;
}

const segment_report_t* find_segment(const audit_t& audit, uint32_t number) {
    for (const segment_report_t& segment : audit.segments)
        if (segment.number == number)
            return &segment;
    return nullptr;
}

}  // namespace

bool state_compare(const std::string& path, audit_t* audit) {
    memories_t memories;
    if (!load(path, &memories))
        return false;
    if (!audit->key || !memories.contains(*audit->key)) {
        if (!memories.empty())
            audit->notes.push_back("the state file knows nothing of this node's key");
        return true;
    }
    const memory_t& memory = memories[*audit->key];
    const std::string seen = "segment " + std::to_string(memory.segment);
    const uint32_t newest = audit->segments.empty() ? 0 : audit->segments.back().number;
    const segment_report_t* segment = find_segment(*audit, memory.segment);
    if (newest < memory.segment)
        audit->faults.push_back(seen + " was seen before, now the newest is " +
                                std::to_string(newest) + ": rolled back, or its tail was removed");
    else if (segment != nullptr && segment->root != memory.root)
        audit->faults.push_back(seen + " had another root when it was seen before");
    else if (segment == nullptr)
        audit->notes.push_back(seen + ", seen before, was evicted");
    return true;
}

bool state_remember(const std::string& path, const audit_t& audit) {
    const auto newest = std::find_if(audit.segments.rbegin(), audit.segments.rend(),
                                     [](const segment_report_t& s) { return s.settled; });
    if (!audit.key || newest == audit.segments.rend())
        return true;
    memories_t memories;
    if (!load(path, &memories))
        return false;
    memories[*audit.key] = {newest->number, newest->root};
    const std::string beside = path + ".new";
    std::ofstream out(beside, std::ios::trunc);
    for (const auto& [key, memory] : memories)
        out << to_hex(key) << ' ' << memory.segment << ' ' << to_hex(memory.root) << '\n';
    out.close();
    if (out && std::rename(beside.c_str(), path.c_str()) == 0)
        return true;
    std::fprintf(stderr, "audit: cannot write %s\n", path.c_str());
    std::remove(beside.c_str());
    return false;
}
