#include "tools/audit/volume.h"

#include <cstdio>
#include <cstring>
#include <sstream>

#include "kernel/fs/blockfs.h"
#include "kernel/fs/blockfs/format.h"
#include "kernel/graph/cjournal/format.h"
#include "tools/host/image.h"

namespace {

constexpr size_t LISTING_BYTES = 1 << 20;  // more than any inode table's names

journal_found_t complain(const std::string& image, const std::string& what, journal_found_t found) {
    std::fprintf(stderr, "audit: %s: %s\n", image.c_str(), what.c_str());
    return found;
}

/// Mounting a disk without a volume would format it, though only in memory.
bool has_volume() {
    vofs_super super;
    return image_sector(0, &super) && super.magic == VOFS_MAGIC;
}

bool read_file(const std::string& name, bytes_t* bytes) {
    const std::string path = std::string(CJOURNAL_DIR) + "/" + name;
    sys_stat st;
    if (blockfs_stat(path.c_str(), &st) != 0)
        return false;
    if (st.type != SYS_STAT_FILE || st.size > BLOCKFS_FILE_BYTES_MAX)
        return true;
    bytes->resize(st.size);
    return st.size == 0 || blockfs_read_file(static_cast<int>(st.inode), bytes->data(), 0,
                                             st.size) == static_cast<int>(st.size);
}

journal_found_t read_folder(const std::string& image, files_t* files) {
    std::string listing(LISTING_BYTES, '\0');
    if (blockfs_list(CJOURNAL_DIR, listing.data(), static_cast<int>(listing.size())) < 0)
        return complain(image, std::string("there is no journal (no ") + CJOURNAL_DIR + ")",
                        journal_found_t::none);
    std::istringstream names(listing.c_str());
    for (std::string name; std::getline(names, name);)
        if (!read_file(name, &(*files)[name]))
            return complain(image, "a file of the journal cannot be read",
                            journal_found_t::unreadable);
    return journal_found_t::whole;
}

}  // namespace

journal_found_t read_journal_files(const std::string& image, files_t* files) {
    const std::string wrong = image_open(image, image_access::read);
    if (!wrong.empty()) {
        std::fprintf(stderr, "audit: %s\n", wrong.c_str());
        return journal_found_t::unreadable;
    }
    journal_found_t found = journal_found_t::none;
    if (!has_volume())
        complain(image, "there is no volume on it", found);
    else if (blockfs_init() != 0)
        found = complain(image, "its volume cannot be mounted", journal_found_t::unreadable);
    else
        found = read_folder(image, files);
    blockfs_forget();
    image_close();
    return found;
}
