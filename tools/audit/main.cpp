// audit IMAGE [--key HEX] [--state FILE] [--json]: proves a disk's journal, offline.
#include <getopt.h>

#include <cstdio>
#include <cstring>

#include "tools/audit/hex.h"
#include "tools/audit/journal.h"
#include "tools/audit/report.h"
#include "tools/audit/state.h"
#include "tools/audit/volume.h"

namespace {

constexpr int EXIT_WRONG_USE = 2;
constexpr int EXIT_NO_JOURNAL = 3;

constexpr const char* USAGE =
    "Usage: ./vorn audit IMAGE [--key HEX] [--state FILE] [--json]\n"
    "\n"
    "Proves the journal on a disk image without starting it and without writing to it.\n"
    "\n"
    "  --key HEX     the node's public key, 64 digits, as `journal pubkey` printed it: the\n"
    "                signatures must be of that key and no other\n"
    "  --state FILE  remember the newest segment seen of each key, and compare with what was\n"
    "                remembered: finds a disk that was put back, or a tail that was cut off\n"
    "  --json        one object instead of a report\n"
    "  --help        this text\n"
    "\n"
    "Exit status: 0 sound and sealed, 1 bad, 2 wrong use, 3 no journal there, 4 sound but not all\n"
    "segments signed. A machine stopped in its first start may leave no journal; later it is "
    "gone.\n"
    "What is protected, and what no check can tell, stands at the end of the report.\n";

struct options_t {
    std::string image;
    std::string state;
    std::optional<key_t32> key;
    bool json = false;
    bool help = false;
};

/// False, with a line on stderr, when the arguments are not understood.
bool parse_options(int argc, char** argv, options_t* options) {
    static const option LONG[] = {{"key", required_argument, nullptr, 'k'},
                                  {"state", required_argument, nullptr, 's'},
                                  {"json", no_argument, nullptr, 'j'},
                                  {"help", no_argument, nullptr, 'h'},
                                  {}};
    for (int which; (which = getopt_long(argc, argv, "h", LONG, nullptr)) != -1;) {
        key_t32 key;
        switch (which) {
            case 'k':
                if (!parse_hex32(optarg, &key)) {
                    std::fprintf(stderr, "audit: --key wants 64 hexadecimal digits\n");
                    return false;
                }
                options->key = key;
                break;
            case 's':
                options->state = optarg;
                break;
            case 'j':
                options->json = true;
                break;
            case 'h':
                options->help = true;
                return true;
            default:
                return false;
        }
    }
    if (argc - optind != 1) {
        std::fprintf(stderr, "audit: name one disk image (--help says more)\n");
        return false;
    }
    options->image = argv[optind];
    return true;
}

int run(const options_t& options) {
    files_t files;
    const journal_found_t found = read_journal_files(options.image, &files);
    if (found != journal_found_t::whole)
        return found == journal_found_t::none ? EXIT_NO_JOURNAL : AUDIT_BAD;
    audit_t audit = audit_journal(files, options.key);
    if (!options.state.empty() && !state_compare(options.state, &audit))
        return AUDIT_BAD;
    const audit_verdict_t verdict = audit_verdict(audit);
    if (!options.state.empty() && verdict != AUDIT_BAD && !state_remember(options.state, audit))
        return AUDIT_BAD;
    if (options.json)
        print_json(audit);
    else
        print_report(audit);
    return verdict;
}

}  // namespace

int main(int argc, char** argv) {
    options_t options;
    if (!parse_options(argc, argv, &options))
        return EXIT_WRONG_USE;
    if (!options.help)
        return run(options);
    std::fputs(USAGE, stdout);
    return 0;
}
