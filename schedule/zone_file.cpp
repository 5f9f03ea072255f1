// Zone files, in the block of theirs that has 64-bit times, with the rule behind it.
#include <schedule/zone.h>

#include <array>
#include <cstdlib>

#include <common/text_file.h>

namespace velia::schedule {

namespace {

constexpr std::string_view magic = "TZif";
constexpr std::string_view database = "/usr/share/zoneinfo/";
constexpr const char *zone_of_host = "/etc/localtime";
constexpr FileBounds zone_bounds = {1 << 20, text_line_bytes_max};
constexpr size_t version_at = 4;
constexpr size_t header_rest = 15;

// Numbers stand with their highest byte first. What is asked for beyond the end is a failure that is kept.
class ZoneReader {
public:
    explicit ZoneReader(std::string_view bytes) : rest_(bytes) {}

    bool is_good() const { return is_good_; }
    std::string_view rest() const { return rest_; }

    std::string_view take(size_t count) {
        is_good_ = is_good_ && count <= rest_.size();
        if (!is_good_)
            return {};
        const auto taken = rest_.substr(0, count);
        rest_.remove_prefix(count);
        return taken;
    }

    int64_t number(size_t size) {
        const auto bytes = take(size);
        uint64_t value = !bytes.empty() && (static_cast<unsigned char>(bytes[0]) & 0x80U) != 0 ? ~uint64_t{0} : 0;
        for (const char part : bytes)
            value = value << 8 | static_cast<unsigned char>(part);
        return static_cast<int64_t>(value);
    }

    uint32_t count() { return static_cast<uint32_t>(number(4)); }
    uint8_t byte() { return static_cast<uint8_t>(number(1)); }

private:
    std::string_view rest_;
    bool is_good_ = true;
};

struct Counts {
    uint64_t is_utc;
    uint64_t is_standard;
    uint64_t leaps;
    uint64_t times;
    uint64_t types;
    uint64_t characters;
};

// The version behind the magic, as the file has it; 0 for what is no zone file.
char take_header(ZoneReader &reader, Counts &counts) {
    const bool is_zone = reader.take(version_at) == magic;
    const auto version = reader.take(1);
    reader.take(header_rest);
    counts.is_utc = reader.count();
    counts.is_standard = reader.count();
    counts.leaps = reader.count();
    counts.times = reader.count();
    counts.types = reader.count();
    counts.characters = reader.count();
    return is_zone && reader.is_good() ? version[0] : '\0';
}

void skip_block(ZoneReader &reader, const Counts &counts) {
    constexpr uint64_t time_size = 5;
    constexpr uint64_t type_size = 6;
    constexpr uint64_t leap_size = 8;
    reader.take(counts.times * time_size + counts.types * type_size + counts.characters + counts.leaps * leap_size +
                counts.is_standard + counts.is_utc);
}

// The rule's line may be empty: then there is none.
bool take_rule(ZoneReader &reader, std::optional<ZoneRule> &rule) {
    if (reader.take(1) != "\n")
        return false;
    const auto text = reader.rest().substr(0, reader.rest().find('\n'));
    if (text.size() == reader.rest().size())
        return false;
    rule = parse_rule(text);
    return rule.has_value() || text.empty();
}

std::optional<Zone> take_zone(ZoneReader &reader, const Counts &counts) {
    constexpr size_t time_size = 8;
    constexpr size_t rest_of_type = 2;
    const auto times = reader.take(counts.times * time_size);
    const auto kinds = reader.take(counts.times);
    std::vector<int64_t> offsets;
    for (uint64_t i = 0; i < counts.types && reader.is_good(); ++i) {
        offsets.push_back(reader.number(4));
        reader.take(rest_of_type);
    }
    reader.take(counts.characters + counts.is_standard + counts.is_utc);
    if (!reader.is_good() || offsets.empty())
        return std::nullopt;
    ZoneReader moments(times);
    std::vector<Zone::Change> changes;
    for (const char kind : kinds) {
        const auto type = static_cast<unsigned char>(kind);
        if (type >= offsets.size())
            return std::nullopt;
        changes.push_back({moments.number(time_size), offsets[type]});
        if (changes.size() > 1 && changes[changes.size() - 2].at >= changes.back().at)
            return std::nullopt;
    }
    std::optional<ZoneRule> rule;
    if (!take_rule(reader, rule))
        return std::nullopt;
    return Zone(offsets.front(), std::move(changes), rule);
}

// At most what the bound allows.
std::optional<std::string> read_file(const char *path) {
    TextFile file;
    if (file.open(path, zone_bounds) != FileOutcome::ok)
        return std::nullopt;
    std::string bytes;
    std::array<char, 4096> piece;
    size_t count = 0;
    FileOutcome outcome;
    while ((outcome = file.next_bytes(piece.data(), piece.size(), count)) == FileOutcome::ok && count > 0)
        bytes.append(piece.data(), count);
    file.close();
    return outcome == FileOutcome::ok ? std::optional(bytes) : std::nullopt;
}

std::optional<Zone> zone_in_file(const std::string &path) {
    const auto bytes = read_file(path.c_str());
    return bytes ? decode_zone(*bytes) : std::nullopt;
}

bool leads_out(std::string_view name) {
    return name.find("..") != std::string_view::npos;
}

} // namespace

std::optional<Zone> decode_zone(std::string_view bytes) {
    ZoneReader reader(bytes);
    Counts counts = {};
    if (take_header(reader, counts) < '2')
        return std::nullopt;
    skip_block(reader, counts);
    if (take_header(reader, counts) < '2' || counts.leaps != 0)
        return std::nullopt;
    return take_zone(reader, counts);
}

std::optional<Zone> read_zone(const std::string &name) {
    const std::string bare = name.starts_with(':') ? name.substr(1) : name;
    if (bare.empty())
        return zone_in_file(zone_of_host);
    if (bare.front() == '/')
        return zone_in_file(bare);
    if (auto zone = leads_out(bare) ? std::nullopt : zone_in_file(std::string(database) + bare))
        return zone;
    const auto rule = parse_rule(bare);
    return rule ? std::optional(Zone(rule->standard, {}, rule)) : std::nullopt;
}

} // namespace velia::schedule
