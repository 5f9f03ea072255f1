// veliactl view and vault: registering objects, and listing those that are registered.
#include <cli/registry.h>

#include <array>

#include <cli/commands.h>
#include <cli/messages.h>
#include <cli/results.h>
#include <cli/server.h>
#include <support/imsg.h>
#include <veliaxdr/rgy_objects.h>

namespace velia::cli {

namespace {

constexpr size_t text_max = RGY_ITEM_TEXT_SIZE - 1;

struct Object {
    std::string uuid_text;
    std::string second_uuid_text; // of a vault: its family
    std::string owner;            // of a view
    std::string hostname;
    std::string path;
    std::vector<std::string> attributes;
    std::string registry;
};

using Attributes = std::vector<const char *>;

tbs_status_t add_view(const Object &object, const Attributes &attributes);
tbs_status_t add_vault(const Object &object, const Attributes &attributes);

// What a view and a vault differ in.
struct Kind {
    const char *name;
    const char *db;
    std::array<uint32_t, 5> items; // of the columns behind the first
    Output list_output;
    tbs_status_t (*add)(const Object &, const Attributes &);
};

constexpr Column view_columns[] = {{"id", Type::integer, "number of its entry in the registry"},
                                   {"uuid", Type::text, "the view's", true},
                                   {"hostname", Type::text, "host that has its storage", true},
                                   {"path", Type::text, "of its storage on that host", true},
                                   {"owner", Type::text, "who owns it", true},
                                   {"attributes", Type::attributes, "by name", true}};
constexpr Column vault_columns[] = {{"id", Type::integer, "number of its entry in the registry"},
                                    {"uuid", Type::text, "the replica's", true},
                                    {"family", Type::text, "uuid of the family that it is of", true},
                                    {"hostname", Type::text, "host that has its storage", true},
                                    {"path", Type::text, "of its storage on that host", true},
                                    {"attributes", Type::attributes, "by name", true}};

constexpr Column add_columns[] = {{"action", Type::text, "added"},
                                  {"object", Type::text, "view or vault"},
                                  {"uuid", Type::text, "the view's, or the replica's"},
                                  {"hostname", Type::text, "host that has its storage"},
                                  {"path", Type::text, "of its storage on that host"}};
constexpr Output add_output = {Output::Shape::one, add_columns};

constexpr Kind view = {
    "view",
    "view_object",
    {RGY_ITEM_VIEW_UUID, RGY_ITEM_HOSTNAME, RGY_ITEM_LOCAL_PATH, RGY_ITEM_OWNER, RGY_ITEM_ATTRIBUTES},
    {Output::Shape::list, view_columns},
    add_view};
constexpr Kind vault = {
    "vault",
    "vault_object",
    {RGY_ITEM_VAULT_REPLICA, RGY_ITEM_VAULT_FAMILY, RGY_ITEM_HOSTNAME, RGY_ITEM_LOCAL_PATH, RGY_ITEM_ATTRIBUTES},
    {Output::Shape::list, vault_columns},
    add_vault};

std::string fault_of_text(const std::string &text) {
    if (text.size() > text_max)
        return "a text of the registry has " + std::to_string(text_max) + " characters at most";
    return rgy_validate_string(text.c_str()) == TBS_ST_OK ? "" : "a text holds neither a semicolon nor a line feed";
}

std::string fault_of_attribute(const std::string &text) {
    return text.find(',') == std::string::npos ? fault_of_text(text) : "'" + text + "' holds a comma, which ends one";
}

Options place_of_uuid(Object &object, const char *help) {
    return {
        {.name = "UUID", .help = help, .target = &object.uuid_text, .fault = fault_of_uuid, .is_required = true},
        {.name = "--hostname",
         .type = "HOST",
         .help = "host that has its storage",
         .target = &object.hostname,
         .fault = fault_of_text,
         .is_required = true},
        {.name = "--path",
         .type = "PATH",
         .help = "path of its storage on that host",
         .target = &object.path,
         .fault = fault_of_text,
         .is_required = true},
    };
}

Options attribute_options(Object &object) {
    return {
        {.name = "--attribute",
         .type = "ATTRIBUTE",
         .help = "NAME or NAME=VALUE; may be repeated",
         .target = &object.attributes,
         .fault = fault_of_attribute},
        registry_host_option(object.registry),
    };
}

Options view_options(Object &object) {
    return joined(
        {place_of_uuid(object, "the view's uuid"),
         {{.name = "--owner", .type = "NAME", .help = "who owns it", .target = &object.owner, .fault = fault_of_text}},
         attribute_options(object)});
}

Options vault_options(Object &object) {
    return joined({place_of_uuid(object, "the replica's uuid"),
                   {{.name = "--family",
                     .type = "UUID",
                     .help = "uuid of the family that the replica is of",
                     .target = &object.second_uuid_text,
                     .fault = fault_of_uuid,
                     .is_required = true}},
                   attribute_options(object)});
}

struct Listing {
    std::optional<std::string> hostname; // the empty one is one, too
    std::string region;
    std::string registry;
};

Options listing_options(Listing &listing) {
    return {
        {.name = "--hostname",
         .type = "HOST",
         .help = "only those with their storage on this host",
         .target = &listing.hostname,
         .fault = fault_of_text},
        {.name = "--region", .type = "REGION", .help = "those of this region and of none", .target = &listing.region},
        registry_host_option(listing.registry),
    };
}

template <const Kind &kind>
int add(const Object &object, const Settings &settings);
template <const Kind &kind>
int list(const Listing &listing, const Settings &settings);

constexpr Command commands[] = {
    {.path = "view", .help = "Views: register one, list those that are registered"},
    {.path = "view add",
     .help = "Register a view",
     .examples = {"veliactl view add 0b5f8a52-7d1a-4c39-9d54-1a2b3c4d5e6f --hostname build7 --path /views/ann.vws "
                  "--owner lab/ann"},
     .make = call_of<add<view>, view_options>,
     .output = &add_output},
    {.path = "view list",
     .help = "List the registered views",
     .examples = {"veliactl view list --hostname build7 --output json"},
     .make = call_of<list<view>, listing_options>,
     .output = &view.list_output},
    {.path = "vault", .help = "Vaults: register a replica, list those that are registered"},
    {.path = "vault add",
     .help = "Register a vault",
     .examples = {"veliactl vault add 0b5f8a52-7d1a-4c39-9d54-1a2b3c4d5e6f --family "
                  "5e6f0b5f-7d1a-4c39-9d54-1a2b3c4d8a52 --hostname build7 --path /vaults/src.vbs"},
     .make = call_of<add<vault>, vault_options>,
     .output = &add_output},
    {.path = "vault list",
     .help = "List the registered vaults",
     .examples = {"veliactl vault list --hostname build7 --output json"},
     .make = call_of<list<vault>, listing_options>,
     .output = &vault.list_output},
};

const char *text_or_null(const std::string &text) {
    return text.empty() ? nullptr : text.c_str();
}

tbs_status_t add_view(const Object &object, const Attributes &attributes) {
    const tbs_uuid_t uuid = uuid_of(object.uuid_text);
    return rgy_add_view_object(text_or_null(object.registry), text_or_null(object.owner), &uuid,
                               object.hostname.c_str(), object.path.c_str(), static_cast<int32_t>(attributes.size()),
                               attributes.data());
}

tbs_status_t add_vault(const Object &object, const Attributes &attributes) {
    const tbs_uuid_t replica = uuid_of(object.uuid_text);
    const tbs_uuid_t family = uuid_of(object.second_uuid_text);
    return rgy_add_vault_object(text_or_null(object.registry), &replica, object.hostname.c_str(), object.path.c_str(),
                                &family, static_cast<int32_t>(attributes.size()), attributes.data());
}

// The library leaves out what does not fit; who typed it wants to know.
bool do_attributes_fit(const std::vector<std::string> &attributes) {
    return joined(attributes, ",").size() <= text_max;
}

int print_failure(const Kind &kind, const Object &object, tbs_status_t status) {
    if (status == TBS_ST_ALREADY_EXISTS)
        tell_failure(status, registry_of(object.registry), "A %s with the uuid %s is registered already\n", kind.name,
                     object.uuid_text.c_str());
    else
        tell_failure(status, registry_of(object.registry), "The %s was not registered: %s\n", kind.name,
                     tbs_strerror(status));
    return exit_status_of_request(status);
}

int add_object(const Kind &kind, const Object &object, const Settings &settings) {
    if (!do_attributes_fit(object.attributes)) {
        tell_failure(TBS_ST_INVALID_ARG, "",
                     "The attributes have more than %lu characters with the commas between them\n", text_max);
        return exit_usage;
    }
    Attributes attributes;
    for (const auto &attribute : object.attributes)
        attributes.push_back(attribute.c_str());
    const auto status = kind.add(object, attributes);
    if (status != TBS_ST_OK)
        return print_failure(kind, object, status);
    Results results(add_output, settings, Results::Of::change);
    results.add({"added", kind.name, object.uuid_text, object.hostname, object.path});
    results.finish();
    return exit_done;
}

Cell cell_of(rgy_entry_t *entry, uint32_t item) {
    const char *text = nullptr;
    if (rgy_getstring_from_entry_const(entry, item, &text) != TBS_ST_OK)
        return {};
    return item == RGY_ITEM_ATTRIBUTES ? attributes_cell(text) : Cell(text);
}

Search search_of(const Kind &kind, const Listing &listing) {
    Search search;
    search.db = kind.db;
    search.host = listing.registry;
    search.region = listing.region;
    if (listing.hostname)
        search.string = "hostname=" + *listing.hostname;
    return search;
}

int list_objects(const Kind &kind, const Listing &listing, const Settings &settings) {
    Results results(kind.list_output, settings);
    const auto take = [&](rgy_entry_t *entry) {
        Cells cells = {entry->entry_id};
        for (const auto item : kind.items)
            cells.push_back(cell_of(entry, item));
        results.add(std::move(cells));
        return TBS_ST_OK;
    };
    const auto status = each_entry(search_of(kind, listing), take, [&] { return results.pause(); });
    if (status != TBS_ST_OK)
        return exit_status_of_request(status);
    results.finish();
    return exit_done;
}

template <const Kind &kind>
int add(const Object &object, const Settings &settings) {
    return add_object(kind, object, settings);
}

template <const Kind &kind>
int list(const Listing &listing, const Settings &settings) {
    return list_objects(kind, listing, settings);
}

} // namespace

const Commands object_commands = commands;

} // namespace velia::cli
