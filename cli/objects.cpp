// veliactl view and vault: registering objects, and listing those that are registered.
#include <cli/registry.h>

#include <array>
#include <iostream>
#include <memory>

#include <fmt/format.h>

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

const char *text_or_null(const std::string &text) {
    return text.empty() ? nullptr : text.c_str();
}

tbs_uuid_t uuid_of(const std::string &text) {
    tbs_uuid_t uuid = {};
    tbs_str_to_uuid(text.c_str(), &uuid); // checked with the command line
    return uuid;
}

using Attributes = std::vector<const char *>;

tbs_status_t add_view(const Object &view, const Attributes &attributes) {
    const tbs_uuid_t uuid = uuid_of(view.uuid_text);
    return rgy_add_view_object(text_or_null(view.registry), text_or_null(view.owner), &uuid, view.hostname.c_str(),
                               view.path.c_str(), static_cast<int32_t>(attributes.size()), attributes.data());
}

tbs_status_t add_vault(const Object &vault, const Attributes &attributes) {
    const tbs_uuid_t replica = uuid_of(vault.uuid_text);
    const tbs_uuid_t family = uuid_of(vault.second_uuid_text);
    return rgy_add_vault_object(text_or_null(vault.registry), &replica, vault.hostname.c_str(), vault.path.c_str(),
                                &family, static_cast<int32_t>(attributes.size()), attributes.data());
}

struct Column {
    const char *name;
    uint32_t item;
};

struct Kind {
    const char *name; // of one, and of its group of commands
    const char *group_help;
    const char *db;
    std::array<Column, 5> columns;
    tbs_status_t (*add)(const Object &, const Attributes &);
    const char *uuid_help;
    const char *examples_of_add;
};

constexpr std::array kinds = {
    Kind{"view", "Views: register one, list those that are registered", "view_object",
         std::array{Column{"uuid", RGY_ITEM_VIEW_UUID}, Column{"hostname", RGY_ITEM_HOSTNAME},
                    Column{"path", RGY_ITEM_LOCAL_PATH}, Column{"owner", RGY_ITEM_OWNER},
                    Column{"attributes", RGY_ITEM_ATTRIBUTES}},
         add_view, "the view's uuid",
         "veliactl view add 0b5f8a52-7d1a-4c39-9d54-1a2b3c4d5e6f --hostname build7 --path /views/ann.vws --owner "
         "lab/ann"},
    Kind{"vault", "Vaults: register a replica, list those that are registered", "vault_object",
         std::array{Column{"uuid", RGY_ITEM_VAULT_REPLICA}, Column{"family", RGY_ITEM_VAULT_FAMILY},
                    Column{"hostname", RGY_ITEM_HOSTNAME}, Column{"path", RGY_ITEM_LOCAL_PATH},
                    Column{"attributes", RGY_ITEM_ATTRIBUTES}},
         add_vault, "the replica's uuid",
         "veliactl vault add 0b5f8a52-7d1a-4c39-9d54-1a2b3c4d5e6f --family 5e6f0b5f-7d1a-4c39-9d54-1a2b3c4d8a52 "
         "--hostname build7 --path /vaults/src.vbs"},
};

std::string check_text(const std::string &text) {
    if (text.size() > text_max)
        return fmt::format("a text of the registry has {} characters at most", text_max);
    return rgy_validate_string(text.c_str()) == TBS_ST_OK ? "" : "a text holds neither a semicolon nor a line feed";
}

std::string check_attribute(const std::string &text) {
    return text.find(',') == std::string::npos ? check_text(text) : "'" + text + "' holds a comma, which ends one";
}

// The library leaves out what does not fit; who typed it wants to know.
bool do_attributes_fit(const std::vector<std::string> &attributes) {
    return fmt::format("{}", fmt::join(attributes, ",")).size() <= text_max;
}

int print_failure(const Kind &kind, const Object &object, tbs_status_t status) {
    if (status == TBS_ST_ALREADY_EXISTS)
        imsg_print(IMSG_ERROR, "A %s with the uuid %s is registered already\n", IMSG_FORMAT, kind.name,
                   object.uuid_text.c_str());
    else
        imsg_print(IMSG_ERROR, "The %s was not registered: %s\n", IMSG_FORMAT, kind.name, tbs_strerror(status));
    return exit_status_of(status);
}

int add(const Kind &kind, const Object &object, const Settings &settings) {
    if (!do_attributes_fit(object.attributes)) {
        imsg_print(IMSG_ERROR, "The attributes have more than %lu characters with the commas between them\n",
                   IMSG_FORMAT, text_max);
        return exit_usage;
    }
    Attributes attributes;
    for (const auto &attribute : object.attributes)
        attributes.push_back(attribute.c_str());
    const auto status = kind.add(object, attributes);
    if (status != TBS_ST_OK)
        return print_failure(kind, object, status);
    Results results({"action", "object", "uuid", "hostname", "path"});
    results.add({"added", kind.name, object.uuid_text, object.hostname, object.path});
    results.print(settings.format, settings.with_headers, std::cout);
    return exit_done;
}

Cell cell_of(rgy_entry_t *entry, uint32_t item) {
    const char *text = nullptr;
    return rgy_getstring_from_entry_const(entry, item, &text) == TBS_ST_OK ? Cell(text) : Cell();
}

int list(const Kind &kind, const Search &search, const Settings &settings) {
    std::vector<std::string> names = {"id"};
    for (const auto &column : kind.columns)
        names.emplace_back(column.name);
    Results results(names);
    const auto status = each_entry(search, [&](rgy_entry_t *entry) {
        Cells cells = {entry->entry_id};
        for (const auto &column : kind.columns)
            cells.push_back(cell_of(entry, column.item));
        results.add(std::move(cells));
        return TBS_ST_OK;
    });
    if (status != TBS_ST_OK)
        return exit_status_of(status);
    results.print(settings.format, settings.with_headers, std::cout);
    return exit_done;
}

void add_adding(CLI::App &group, const Kind &kind, Settings &settings, Command &chosen) {
    auto object = std::make_shared<Object>();
    CLI::App *command = group.add_subcommand("add", std::string("Register a ") + kind.name);
    command->add_option("UUID", object->uuid_text, kind.uuid_help)
        ->type_name("")
        ->required()
        ->check(CLI::Validator(check_uuid, ""));
    const auto add_text = [&](const char *name, std::string &value, const char *help, const char *type) {
        return command->add_option(name, value, help)->type_name(type)->check(CLI::Validator(check_text, ""));
    };
    add_text("--hostname", object->hostname, "host that has its storage", "HOST")->required();
    add_text("--path", object->path, "path of its storage on that host", "PATH")->required();
    if (kind.add == add_vault)
        command->add_option("--family", object->second_uuid_text, "uuid of the family that the replica is of")
            ->type_name("UUID")
            ->required()
            ->check(CLI::Validator(check_uuid, ""));
    else
        add_text("--owner", object->owner, "who owns it", "NAME");
    command->add_option("--attribute", object->attributes, "NAME or NAME=VALUE; may be repeated")
        ->type_name("ATTRIBUTE")
        ->allow_extra_args(false)
        ->check(CLI::Validator(check_attribute, ""));
    add_registry_host(*command, object->registry);
    add_common_options(*command, settings);
    command->footer(examples(kind.examples_of_add));
    command->callback([&kind, object, &chosen] {
        chosen = [&kind, object](const Settings &given) { return add(kind, *object, given); };
    });
}

void add_listing(CLI::App &group, const Kind &kind, Settings &settings, Command &chosen) {
    auto search = std::make_shared<Search>();
    search->db = kind.db;
    CLI::App *command = group.add_subcommand("list", fmt::format("List the registered {}s", kind.name));
    command
        ->add_option_function<std::string>(
            "--hostname", [search](const std::string &hostname) { search->string = "hostname=" + hostname; },
            "only those with their storage on this host")
        ->type_name("HOST")
        ->check(CLI::Validator(check_text, ""));
    command->add_option("--region", search->region, "those of this region and of none")->type_name("REGION");
    add_registry_host(*command, search->host);
    add_common_options(*command, settings);
    command->footer(examples(fmt::format("veliactl {} list --hostname build7 --output json", kind.name)));
    command->callback([&kind, search, &chosen] {
        chosen = [&kind, search](const Settings &given) { return list(kind, *search, given); };
    });
}

} // namespace

void add_object_commands(CLI::App &app, Settings &settings, Command &chosen) {
    for (const Kind &kind : kinds) {
        CLI::App *group = app.add_subcommand(kind.name, kind.group_help);
        group->require_subcommand(1);
        group->footer(exit_status_help);
        add_adding(*group, kind, settings, chosen);
        add_listing(*group, kind, settings, chosen);
    }
}

} // namespace velia::cli
