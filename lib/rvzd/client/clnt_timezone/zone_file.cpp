// Reads the first block of a zone file, the one with 32-bit times. A file is taken over whole or not at all: one that
// is cut off, or whose parts do not fit together, is no zone file. Memory is asked for what the file really holds.
#include "timezone.h"

#include <cstring>

#include <common/text_file.h>
#include <support/stg.h>

using namespace velia;
using namespace velia::tz;

namespace {

constexpr char zone_magic[] = "TZif";
constexpr FileBounds zone_bounds = {list_file.file_bytes, text_line_bytes_max};

// Numbers stand in a zone file with their highest byte first. The reader's bytes have been counted before.
class ZoneReader {
public:
    explicit ZoneReader(std::string_view bytes) : rest_(bytes) {}

    std::string_view take(size_t count) {
        const auto taken = rest_.substr(0, count);
        rest_.remove_prefix(taken.size());
        return taken;
    }

    uint8_t byte() { return static_cast<uint8_t>(take(1)[0]); }
    int32_t extended_byte() { return static_cast<int8_t>(byte()); }

    int32_t number() {
        uint32_t value = 0;
        for (const char part : take(sizeof value))
            value = value << 8 | static_cast<uint8_t>(part);
        return static_cast<int32_t>(value);
    }

private:
    std::string_view rest_;
};

ZoneHeader decode_header(ZoneReader &reader) {
    ZoneHeader header = {};
    memcpy(header.unread, reader.take(sizeof header.unread).data(), sizeof header.unread);
    for (int32_t *count :
         {&header.ttisgmtcnt, &header.ttisstdcnt, &header.leapcnt, &header.timecnt, &header.typecnt, &header.charcnt})
        *count = reader.number();
    return header;
}

// A count that is not positive is one of nothing.
uint64_t items(int32_t count) {
    return count > 0 ? static_cast<uint64_t>(count) : 0;
}

// The bytes that a file with this header has at least.
uint64_t block_size(const ZoneHeader &header) {
    constexpr uint64_t transition_size = 5;
    constexpr uint64_t type_size = 6;
    constexpr uint64_t leap_size = 8;
    return sizeof(ZoneHeader) + items(header.timecnt) * transition_size + items(header.typecnt) * type_size +
           items(header.charcnt) + items(header.leapcnt) * leap_size + items(header.ttisstdcnt) +
           items(header.ttisgmtcnt);
}

template <class Item>
bool make(Item *&array, int32_t count) {
    array = nullptr;
    if (count <= 0)
        return true;
    const size_t size = items(count) * sizeof(Item);
    array = static_cast<Item *>(stg_malloc(size));
    if (array != nullptr)
        memset(array, 0, size);
    return array != nullptr;
}

bool make_arrays(Zone &zone) {
    const ZoneHeader &header = zone.header;
    return make(zone.transitions, header.timecnt) && make(zone.ttinfo, header.typecnt) &&
           make(zone.chars, header.charcnt) && make(zone.leaps, header.leapcnt) &&
           make(zone.isstd, header.ttisstdcnt) && make(zone.isgmt, header.ttisgmtcnt);
}

void decode_bytes(ZoneReader &reader, void *array, int32_t count) {
    const auto taken = reader.take(items(count));
    if (!taken.empty())
        memcpy(array, taken.data(), taken.size());
}

void decode_arrays(ZoneReader &reader, Zone &zone) {
    const ZoneHeader &header = zone.header;
    for (int32_t i = 0; i < header.timecnt; ++i)
        zone.transitions[i].time = reader.number();
    for (int32_t i = 0; i < header.timecnt; ++i)
        zone.transitions[i].type = reader.byte();
    for (int32_t i = 0; i < header.typecnt; ++i) {
        zone.ttinfo[i].gmtoff = reader.number();
        zone.ttinfo[i].isdst = reader.extended_byte();
        zone.ttinfo[i].abbrind = reader.extended_byte();
    }
    decode_bytes(reader, zone.chars, header.charcnt);
    for (int32_t i = 0; i < header.leapcnt; ++i) {
        zone.leaps[i].time = reader.number();
        zone.leaps[i].correction = reader.number();
    }
    decode_bytes(reader, zone.isstd, header.ttisstdcnt);
    decode_bytes(reader, zone.isgmt, header.ttisgmtcnt);
    if (header.charcnt > 0)
        zone.chars[header.charcnt - 1] = '\0';
}

bool all_types_exist(const Zone &zone) {
    for (int32_t i = 0; i < zone.header.timecnt; ++i) {
        if (zone.transitions[i].type >= zone.header.typecnt)
            return false;
    }
    return true;
}

bool read_bytes(TextFile &file, char *bytes, size_t size) {
    size_t count;
    return file.next_bytes(bytes, size, count) == FileOutcome::ok && count == size;
}

// Whether another block with changes follows the one that has just been read.
bool has_later_changes(TextFile &file) {
    char head[sizeof(ZoneHeader)];
    if (!read_bytes(file, head, sizeof head))
        return false;
    ZoneReader reader({head, sizeof head});
    return memcmp(head, zone_magic, strlen(zone_magic)) == 0 && decode_header(reader).timecnt > 0;
}

ReadOutcome read_body(TextFile &file, char *bytes, size_t size, Zone &zone) {
    constexpr size_t head_size = sizeof(ZoneHeader);
    if (!read_bytes(file, bytes + head_size, size - head_size))
        return ReadOutcome::unusable;
    const ReadOutcome outcome = decode_zone({bytes, size}, zone);
    if (outcome == ReadOutcome::done)
        zone.is_slim = zone.header.timecnt <= 0 && has_later_changes(file);
    return outcome;
}

ReadOutcome read_open_file(TextFile &file, Zone &zone) {
    char head[sizeof(ZoneHeader)];
    if (!read_bytes(file, head, sizeof head))
        return ReadOutcome::unusable;
    ZoneReader reader({head, sizeof head});
    const uint64_t size = block_size(decode_header(reader));
    if (size > file.size_bytes())
        return ReadOutcome::unusable;
    auto *bytes = static_cast<char *>(stg_malloc(size));
    if (bytes == nullptr)
        return ReadOutcome::no_memory;
    memcpy(bytes, head, sizeof head);
    const ReadOutcome outcome = read_body(file, bytes, size, zone);
    stg_free(bytes);
    return outcome;
}

} // namespace

ReadOutcome velia::tz::decode_zone(std::string_view bytes, Zone &zone) {
    zone = {};
    if (bytes.size() < sizeof(ZoneHeader))
        return ReadOutcome::unusable;
    ZoneReader reader(bytes);
    zone.header = decode_header(reader);
    if (block_size(zone.header) > bytes.size())
        return ReadOutcome::unusable;
    const bool has_memory = make_arrays(zone);
    if (has_memory)
        decode_arrays(reader, zone);
    if (has_memory && all_types_exist(zone))
        return ReadOutcome::done;
    release_zone(zone);
    return has_memory ? ReadOutcome::unusable : ReadOutcome::no_memory;
}

void velia::tz::release_zone(Zone &zone) {
    stg_free(zone.transitions);
    stg_free(zone.ttinfo);
    stg_free(zone.chars);
    stg_free(zone.leaps);
    stg_free(zone.isgmt);
    stg_free(zone.isstd);
    zone = {};
}

ReadOutcome velia::tz::read_zone_file(const char *path, Zone &zone) {
    zone = {};
    TextFile file;
    if (file.open(path, zone_bounds) != FileOutcome::ok)
        return ReadOutcome::unusable;
    const ReadOutcome outcome = read_open_file(file, zone);
    file.close();
    return outcome;
}
