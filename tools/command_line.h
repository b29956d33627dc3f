// The command line: its commands, options and help, and how they fill the arguments. Each
// command is a function of commands.h.
#pragma once

#include "tools/commands.h"
#include "tools/values.h"

#include <CLI/CLI.hpp>
#include <string>

namespace vskvs {

class command_line {
public:
    command_line()
    {
        app_.require_subcommand(1);
        app_.fallthrough();
        app_.failure_message(explain_usage);
        app_.set_version_flag("--version", "vskvs " VSKVS_VERSION);
        app_.add_option("--state-dir", state_dir_, "State directory instead of $VS_STATE_DIR")
            ->type_name("DIR");
        app_.footer(footer_of_group("vskvs object add 42 --select 2 --versions 1,2,3"));
        leaf(app_, "init", "Create the databases", init, "vskvs init");
        add_objects();
        add_clients();
        add_registrations();
        add_trace();
        add_journal();
        add_whole_store();
    }

    CLI::App &app() { return app_; }

    void run() const { action_(given_); }

    // Throws unless the process runs with the directory of --state-dir.
    void check_state_dir(const char *chosen) const
    {
        if (app_.count("--state-dir") != 0 && (chosen == nullptr || state_dir_ != chosen))
            throw wrong_usage("--state-dir: not a usable path: " + state_dir_);
    }

    // Whether the command's reports have to be set up before it runs.
    bool needs_reports() const { return needs_reports_; }

private:
    using action = void (*)(const arguments &);

    // A word that is not understood says more than what is missing because of it.
    static std::string explain_usage(const CLI::App *app, const CLI::Error &error)
    {
        const std::vector<std::string> strange = app->remaining(true);
        const bool is_incomplete =
            error.get_exit_code() == static_cast<int>(CLI::ExitCodes::RequiredError);
        const std::string what = is_incomplete && !strange.empty()
                                     ? "The following argument was not expected: " + strange[0]
                                     : error.what();
        return "vskvs: " + printable(what) + "\nRun with --help for more.\n";
    }

    static std::string footer_of_group(const char *example)
    {
        return std::string("Numbers are decimal or begin with 0x. Exit status: 0 done, 1 failed, "
                           "2 wrong usage.\nExample:\n  ") +
               example;
    }

    CLI::App *group(const char *name, const char *description, const char *example)
    {
        CLI::App *const noun = app_.add_subcommand(name, description);
        noun->require_subcommand(1);
        noun->fallthrough();
        noun->footer(footer_of_group(example));
        return noun;
    }

    CLI::App *leaf(CLI::App &parent, const char *name, const char *description, action what,
                   const char *example, bool uses_library = true)
    {
        CLI::App *const verb = parent.add_subcommand(name, description);
        verb->fallthrough();
        verb->footer(std::string("Example:\n  ") + example);
        verb->final_callback([this, what, uses_library] {
            action_ = what;
            // Opening the databases sets the reports up.
            const bool opens = what == init || what == import_objects || what == restore;
            needs_reports_ = uses_library && !opens;
        });
        return verb;
    }

    CLI::Option *number(CLI::App *to, const char *name, uint32_t &into, const char *description)
    {
        CLI::Option *const option = to->add_option(name, into, description)
                                        ->transform(as_number_)
                                        ->type_name(name[0] == '-' ? "N" : "");
        return name[0] == '-' ? option : option->required();
    }

    void json_flag(CLI::App *to)
    {
        to->add_flag("--json", given_.as_json, "Print JSON instead of text");
    }

    CLI::Option *optional_number(CLI::App *to, const char *name, std::optional<uint32_t> &into,
                                 const char *description)
    {
        return to->add_option(name, into, description)
            ->transform(as_number_)
            ->type_name(name[0] == '-' ? "N" : "");
    }

    void time(CLI::App *to, const char *name, int64_t &into, const char *description)
    {
        to->add_option_function<std::string>(
              name,
              [name, &into](const std::string &text) {
                  const std::optional<int64_t> time = parse_time(text);
                  if (!time)
                      throw CLI::ValidationError(name, "not a time: " + text);
                  into = *time;
              },
              description)
            ->type_name("TIME");
    }

    void file(CLI::App *to, const char *description)
    {
        to->add_option("FILE", given_.file, description)->required()->type_name("");
    }

    template <const database &Db>
    void add_views(CLI::App *noun, const char *key, const char *show_example,
                   const char *list_example)
    {
        CLI::App *const one = leaf(*noun, "show", "Print one record", show<Db>, show_example);
        number(one, key, given_.id, "Key of the record");
        json_flag(one);
        json_flag(leaf(*noun, "list", "Print all records", list<Db>, list_example));
    }

    void add_objects()
    {
        CLI::App *const object = group("object", "VS objects and their selected versions",
                                       "vskvs object add 42 --select 2 --versions 1,2,3");
        CLI::App *const add = leaf(*object, "add", "Store a new object", add_object,
                                   "vskvs object add 42 --select 2 --versions 1,2,3");
        number(add, "ID", given_.id, "VS object id");
        number(add, "--select", given_.version, "Selected version")->required();
        add->add_option_function<std::string>(
               "--versions",
               [this](const std::string &list) {
                   const std::string error = parse_numbers(list, given_.versions);
                   if (!error.empty())
                       throw CLI::ValidationError("--versions", error);
               },
               "Supported versions, separated by commas")
            ->type_name("N,N,...");
        number(add, "--optional-compatible", given_.optional_compatible,
               "is_optional_compatible (default 0)");
        number(add, "--scope", given_.scope, "scope (default 0)");
        number(add, "--changed", given_.changed, "is_changed (default 1)");

        add_views<objects>(object, "ID", "vskvs object show 42", "vskvs object list --json");

        CLI::App *const select = leaf(*object, "select", "Select another version", select_version,
                                      "vskvs object select 42 3");
        number(select, "ID", given_.id, "VS object id");
        number(select, "VERSION", given_.version, "Version to select");

        CLI::App *const removal =
            leaf(*object, "delete", "Delete an object", erase<objects>, "vskvs object delete 42");
        number(removal, "ID", given_.id, "VS object id");

        CLI::App *const import = leaf(
            *object, "import", "Store, or select, many objects at once, all or none",
            import_objects,
            "echo '{\"vs_object_id\": 42, \"selected_version\": 2, \"supp_versions\": [1, 2]}' |\n"
            "      vskvs object import -");
        file(import, "File of JSON lines, - for standard input");
        import->add_flag("--update", given_.update,
                         "Select the versions of stored objects; lines hold vs_object_id and "
                         "selected_version");
    }

    void add_clients()
    {
        CLI::App *const client = group("client", "The client processes of VS objects",
                                       "vskvs client add 42 --jid 7 --pid 1234");
        CLI::App *const create = leaf(*client, "create", "Create an object's empty client list",
                                      create_client_list, "vskvs client create 42");
        number(create, "ID", given_.id, "VS object id");
        struct {
            const char *name, *description;
            action what;
            const char *example;
        } const verbs[] = {
            {"add", "Add a client to an object's list", add_client,
             "vskvs client add 42 --jid 7 --pid 1234 --data 0102"},
            {"update", "Give a client another process id, and data", update_client,
             "vskvs client update 42 --jid 7 --pid 1235"},
        };
        for (const auto &verb : verbs) {
            CLI::App *const change =
                leaf(*client, verb.name, verb.description, verb.what, verb.example);
            number(change, "ID", given_.id, "VS object id");
            number(change, "--jid", given_.jid, "Job id of the client")->required();
            number(change, "--pid", given_.pid, "Process id of the client")->required();
            change->add_option("--data", given_.data, "Client data, up to 12 bytes in hex")
                ->type_name("HEX");
        }
        add_views<clients>(client, "ID", "vskvs client show 42", "vskvs client list");
        CLI::App *const removal = leaf(*client, "delete", "Delete an object's client list",
                                       erase<clients>, "vskvs client delete 42");
        number(removal, "ID", given_.id, "VS object id");
    }

    void add_registrations()
    {
        CLI::App *const registration =
            group("registration", "The VS objects that client jobs registered for",
                  "vskvs registration create 7 42 43");
        CLI::App *const create = leaf(*registration, "create", "Store a job's registration",
                                      create_registration, "vskvs registration create 7 42 43");
        number(create, "JID", given_.id, "Job id");
        create->add_option("ID", given_.ids, "VS object ids")->transform(as_number_)->type_name("");
        CLI::App *const add = leaf(*registration, "add", "Register a job for a further object",
                                   add_to_registration, "vskvs registration add 7 44");
        number(add, "JID", given_.jid, "Job id");
        number(add, "ID", given_.id, "VS object id");
        add_views<registrations>(registration, "JID", "vskvs registration show 7",
                                 "vskvs registration list");
    }

    void add_trace()
    {
        CLI::App *const view = leaf(app_, "trace", "Show the trace buffers of all processes", trace,
                                    "vskvs trace --since 10m --operation vs_kvs_db_init", false);
        view->add_option("BUFFER", given_.buffers, "Trace buffers (default all)")->type_name("");
        view->add_flag("--follow,-f", given_.follow, "Go on as records arrive, until interrupted");
        optional_number(view, "--job", given_.job, "Only the buffers of this job")
            ->excludes("BUFFER");
        view->add_option("--operation", given_.operation, "Only records of this operation")
            ->type_name("NAME");
        time(view, "--since", given_.since,
             "Only records since TIME: 10m, 2h, \"2026-11-22 22:00:00\", or seconds since 1970");
        json_flag(view);
    }

    void add_filters(CLI::App *view, const char *limit_description)
    {
        optional_number(view, "ID", given_.object,
                        "Only changes of this VS object and of its clients");
        optional_number(view, "--job", given_.job, "Only changes that this job made");
        optional_number(view, "--registration", given_.registration,
                        "Only changes of this job's registration")
            ->excludes("ID");
        optional_number(view, "-n", given_.limit, limit_description);
        json_flag(view);
    }

    void add_journal()
    {
        CLI::App *const history = leaf(
            app_, "log", "Show the last changes of the store: when, by whom, from what to what",
            log, "vskvs log 42 --since 10m", false);
        add_filters(history, "Only the last N changes");
        time(history, "--since", given_.since, "Only changes since TIME, as for trace");
        time(history, "--until", given_.until, "Only changes up to TIME");
        history->add_flag("--reverse", given_.reverse, "The last change first");
        history->add_flag("--follow,-f", given_.follow, "Go on as changes come, until interrupted")
            ->excludes("--reverse", "--until");
        add_filters(leaf(app_, "watch", "Show changes of the store as they come", watch,
                         "vskvs watch 42", false),
                    "End after N changes");
    }

    void add_whole_store()
    {
        CLI::App *const explain = leaf(app_, "status", "Explain a status code, or list them all",
                                       status, "vskvs status 0xC5322600", false);
        explain->add_option("CODE", given_.code, "Status code, or its name")
            ->transform(CLI::Validator(check_status, ""))
            ->type_name("");
        json_flag(explain);

        json_flag(leaf(app_, "check", "Report what does not fit together in the three databases",
                       check, "vskvs check"));
        leaf(app_, "dump", "Print everything as JSON lines", dump, "vskvs dump > state.jsonl")
            ->add_flag("--salvage", given_.salvage,
                       "Print what can be read of a damaged store; its services must be stopped");
        file(leaf(app_, "restore", "Fill an empty store from a dump, all or nothing", restore,
                  "vskvs restore state.jsonl"),
             "Dump, - for standard input");
    }

    CLI::App app_{"Look into, change, check and save the state of the version-selection service",
                  "vskvs"};
    const CLI::Validator as_number_{check_number, ""};
    arguments given_;
    std::string state_dir_;
    action action_ = nullptr;
    bool needs_reports_ = false;
};

} // namespace vskvs
