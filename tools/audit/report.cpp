#include "tools/audit/report.h"

#include <cstdio>

#include "tools/audit/hex.h"

namespace {

constexpr const char* PROTECTED =
    "What a sound verdict covers:\n"
    "  every record's number, node, times, type, texts, parents, schema, and its payload by "
    "length\n"
    "  and hash: bound by event hash, Merkle root and, in signed segments, signature; the order "
    "of\n"
    "  segments and records, and that none is missing between the oldest and the newest shown\n"
    "What no check of an image alone can tell:\n"
    "  a record's count of children: only the checksum covers it, which anybody can recompute\n"
    "  whether a segment was imported (bit 0 of its footer's flags), and, when older segments "
    "were\n"
    "  evicted, the link of the oldest one shown to what was before it\n"
    "  whether newer segments were cut off or an older disk was put back: use --state\n"
    "  who signed: the key that signs lies on the same disk, so its thief can sign anew; a root\n"
    "  remembered elsewhere (--state, a receipt) is what gives that away\n"
    "  index, snapshot, timelines and all other files: they are not part of the proof\n";

const char* verdict_word(audit_verdict_t verdict) {
    switch (verdict) {
        case AUDIT_SOUND:
            return "SOUND";
        case AUDIT_UNSEALED:
            return "UNSEALED";
        case AUDIT_BAD:
            break;
    }
    return "BAD";
}

size_t signed_count(const audit_t& audit) {
    size_t count = 0;
    for (const segment_report_t& segment : audit.segments)
        count += segment.is_signed ? 1 : 0;
    return count;
}

void print_segment(const segment_report_t& segment) {
    std::printf("  segment %-8u %4u events  %10u .. %-10u  %s%s%s\n", segment.number,
                segment.events, segment.first_id, segment.last_id,
                segment.is_signed ? "signed" : "not signed",
                segment.current_layout ? "" : ", old layout", segment.imported ? ", imported" : "");
}

std::string quoted(const std::string& text) {
    std::string out = "\"";
    for (const char c : text) {
        char escape[8];
        if (c == '"' || c == '\\') {
            out += '\\';
            out += c;
        } else if (static_cast<unsigned char>(c) < 0x20) {
            std::snprintf(escape, sizeof escape, "\\u%04x", static_cast<unsigned>(c));
            out += escape;
        } else {
            out += c;
        }
    }
    return out + "\"";
}

std::string list_of(const std::vector<std::string>& texts) {
    std::string out = "[";
    for (const std::string& text : texts)
        out += (out.size() > 1 ? "," : "") + quoted(text);
    return out + "]";
}

std::string json_of(const segment_report_t& s) {
    const auto flag = [](const char* name, bool value) {
        return std::string(",\"") + name + "\":" + (value ? "true" : "false");
    };
    return "{\"number\":" + std::to_string(s.number) + ",\"events\":" + std::to_string(s.events) +
           ",\"first_id\":" + std::to_string(s.first_id) +
           ",\"last_id\":" + std::to_string(s.last_id) + ",\"root\":\"" + to_hex(s.root) + "\"" +
           flag("signed", s.is_signed) + flag("imported", s.imported) +
           flag("current_layout", s.current_layout) + "}";
}

}  // namespace

void print_report(const audit_t& audit) {
    std::printf("node key   %s\n", audit.key ? to_hex(*audit.key).c_str() : "none on this disk");
    std::printf("segments   %zu, %zu of them signed, %llu events\n", audit.segments.size(),
                signed_count(audit), static_cast<unsigned long long>(audit.events));
    for (const segment_report_t& segment : audit.segments)
        print_segment(segment);
    for (const std::string& note : audit.notes)
        std::printf("note: %s\n", note.c_str());
    for (const std::string& fault : audit.faults)
        std::printf("FAULT: %s\n", fault.c_str());
    std::printf("VERDICT: %s\n\n%s", verdict_word(audit_verdict(audit)), PROTECTED);
}

void print_json(const audit_t& audit) {
    std::string segments;
    for (const segment_report_t& segment : audit.segments)
        segments += (segments.empty() ? "" : ",") + json_of(segment);
    const std::string key = audit.key ? quoted(to_hex(*audit.key)) : "null";
    std::printf(
        "{\"verdict\":%s,\"node_key\":%s,\"events\":%llu,\"segments\":[%s],\"faults\":%s,"
        "\"notes\":%s}\n",
        quoted(verdict_word(audit_verdict(audit))).c_str(), key.c_str(),
        static_cast<unsigned long long>(audit.events), segments.c_str(),
        list_of(audit.faults).c_str(), list_of(audit.notes).c_str());
}
