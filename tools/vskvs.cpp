// vskvs - looks into, changes, checks and saves what the version-selection service keeps.
//
// This file is the command line: what commands there are and what their words mean. Each command is
// a function of commands.h.
#include "fault.h"
#include "tools/commands.h"
#include "vs_kvs.h"

#include <CLI/CLI.hpp>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <functional>
#include <unistd.h>

namespace vskvs {
namespace {

// ---- words of the command line ----

// A 32-bit number in decimal or with 0x, and nothing else. A leading 0 does not make it octal.
std::string check_number(std::string &text)
{
    const bool is_hex = text.starts_with("0x") || text.starts_with("0X");
    const std::string digits = text.substr(is_hex ? 2 : 0);
    const char *const allowed = is_hex ? "0123456789abcdefABCDEF" : "0123456789";
    if (digits.empty() || digits.size() > 10 || digits.find_first_not_of(allowed) != digits.npos)
        return "not a number: " + text;
    const unsigned long long value = std::stoull(digits, nullptr, is_hex ? 16 : 10);
    if (value > UINT32_MAX)
        return "not a 32-bit number: " + text;
    text = std::to_string(value);
    return {};
}

const CLI::Validator as_number(check_number, "");

// A moment: "90s", "10m", "2h" or "3d" ago, "2026-11-22 22:00[:00]", or seconds since the epoch.
int64_t parse_moment(const std::string &text)
{
    constexpr int64_t second = 1'000'000'000;
    char *end = nullptr;
    const double number = strtod(text.c_str(), &end);
    const std::string unit = end;
    if (end != text.c_str() && number >= 0 && number < 1e10) {
        if (unit.empty())
            return static_cast<int64_t>(number * 1e9);
        const std::string units = "smhd";
        constexpr int lengths[] = {1, 60, 3600, 86400};
        if (unit.size() == 1 && units.find(unit) != units.npos)
            return (time(nullptr) * second) -
                   static_cast<int64_t>(number * lengths[units.find(unit)] * 1e9);
    }
    for (const char *const format :
         {"%Y-%m-%d %H:%M:%S", "%Y-%m-%dT%H:%M:%S", "%Y-%m-%d %H:%M", "%Y-%m-%d"}) {
        tm parts{};
        parts.tm_isdst = -1;
        const char *const rest = strptime(text.c_str(), format, &parts);
        if (rest && *rest == '\0')
            return mktime(&parts) * second;
    }
    throw CLI::ValidationError("--since", "not a moment: " + text);
}

// ---- the commands ----

class command_line {
public:
    command_line()
    {
        app_.require_subcommand(1);
        app_.fallthrough();
        app_.failure_message([](const CLI::App *, const CLI::Error &error) {
            return std::string("vskvs: ") + error.what() + "\nRun with --help for more.\n";
        });
        app_.set_version_flag("--version", "vskvs " VSKVS_VERSION);
        app_.add_option("--state-dir", state_dir_, "State directory instead of $VS_STATE_DIR")
            ->type_name("DIR");
        app_.footer("Numbers are decimal or begin with 0x. Exit status: 0 done, 1 failed, 2 wrong "
                    "usage.\nExample:\n  vskvs object add 42 --select 2 --versions 1,2,3");
        leaf(app_, "init", "Create the databases", init, "vskvs init");
        add_objects();
        add_clients();
        add_registrations();
        add_whole_store();
    }

    CLI::App &app() { return app_; }

    void run() const { action_(given_); }

    // Throws unless the directory that the process runs with is the one that was asked for.
    void check_state_dir(const char *chosen) const
    {
        if (app_.count("--state-dir") != 0 && (!chosen || state_dir_ != chosen))
            throw wrong_usage("--state-dir: not a usable path: " + state_dir_);
    }

    // Whether the command's reports have to be set up before it runs.
    bool needs_reports() const { return needs_reports_; }

private:
    using action = void (*)(const arguments &);

    CLI::App *group(const char *name, const char *description)
    {
        CLI::App *const noun = app_.add_subcommand(name, description);
        noun->require_subcommand(1);
        noun->fallthrough();
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
            // Whoever opens the databases sets its reports up on the way.
            const bool opens = what == init || what == import_objects || what == restore;
            needs_reports_ = uses_library && !opens;
        });
        return verb;
    }

    CLI::Option *number(CLI::App *to, const char *name, uint32_t &into, const char *description)
    {
        CLI::Option *const option = to->add_option(name, into, description)
                                        ->transform(as_number)
                                        ->type_name(name[0] == '-' ? "N" : "");
        return name[0] == '-' ? option : option->required();
    }

    void json_flag(CLI::App *to)
    {
        to->add_flag("--json", given_.as_json, "Print JSON instead of text");
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
        CLI::App *const object = group("object", "VS objects and their selected versions");
        CLI::App *const add = leaf(*object, "add", "Store a new object", add_object,
                                   "vskvs object add 42 --select 2 --versions 1,2,3");
        number(add, "ID", given_.id, "VS object id");
        number(add, "--select", given_.version, "Selected version")->required();
        add->add_option("--versions", given_.versions, "Supported versions, separated by commas")
            ->delimiter(',')
            ->transform(as_number)
            ->type_name("N");
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
        CLI::App *const client = group("client", "The client processes of VS objects");
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
            group("registration", "The VS objects that client jobs registered for");
        CLI::App *const create = leaf(*registration, "create", "Store a job's registration",
                                      create_registration, "vskvs registration create 7 42 43");
        number(create, "JID", given_.id, "Job id");
        create->add_option("ID", given_.ids, "VS object ids")->transform(as_number)->type_name("");
        CLI::App *const add = leaf(*registration, "add", "Register a job for a further object",
                                   add_to_registration, "vskvs registration add 7 44");
        number(add, "JID", given_.jid, "Job id");
        number(add, "ID", given_.id, "VS object id");
        add_views<registrations>(registration, "JID", "vskvs registration show 7",
                                 "vskvs registration list");
    }

    void add_whole_store()
    {
        CLI::App *const view = leaf(app_, "trace", "Show the trace buffers of all processes", trace,
                                    "vskvs trace --since 10m --operation vs_kvs_db_init", false);
        view->add_option("BUFFER", given_.buffers, "Trace buffers (default all)")->type_name("");
        view->add_flag("--follow,-f", given_.follow, "Go on as records arrive, until interrupted");
        view->add_option("--job", given_.job, "Only the buffers of this job")
            ->transform(as_number)
            ->type_name("N")
            ->excludes("BUFFER");
        view->add_option("--operation", given_.operation, "Only records of this operation")
            ->type_name("NAME");
        view->add_option_function<std::string>(
                "--since", [this](const std::string &text) { given_.since = parse_moment(text); },
                "Only records since TIME: 10m, 2h, \"2026-11-22 22:00:00\", or seconds since 1970")
            ->type_name("TIME");
        json_flag(view);

        CLI::App *const explain = leaf(app_, "status", "Explain a status code, or list them all",
                                       status, "vskvs status 0xC5322600", false);
        explain->add_option("CODE", given_.code, "Status code")
            ->transform(as_number)
            ->type_name("");
        json_flag(explain);

        json_flag(leaf(app_, "check", "Report what does not fit together in the three databases",
                       check, "vskvs check"));
        leaf(app_, "dump", "Print everything as JSON lines", dump, "vskvs dump > state.jsonl");
        file(leaf(app_, "restore", "Fill an empty store from a dump, all or nothing", restore,
                  "vskvs restore state.jsonl"),
             "Dump, - for standard input");
    }

    CLI::App app_{"Look into, change, check and save the state of the version-selection service",
                  "vskvs"};
    arguments given_;
    std::string state_dir_;
    action action_ = nullptr;
    bool needs_reports_ = false;
};

// ---- the process ----

// The library opens a trace buffer in the state directory when it is loaded, before main. So the
// option that names the directory is looked for before anything is loaded, and the program starts
// itself again with the directory in its environment.
const char *chosen_state_dir = nullptr; // as the command line gives it

void choose_state_dir(int argc, char **argv, char **environment)
{
    // A descriptor that is closed would become one of the store's files, and what is written to
    // standard error would go there.
    int spare = open("/dev/null", O_RDWR);
    while (spare >= 0 && spare <= STDERR_FILENO)
        spare = open("/dev/null", O_RDWR);
    close(spare);

    static char setting[PATH_MAX + 16] = "VS_STATE_DIR=";
    constexpr size_t name_length = sizeof "VS_STATE_DIR=" - 1;
    constexpr char option[] = "--state-dir";
    constexpr size_t option_length = sizeof option - 1;
    static char *changed[4096];
    const char *dir = nullptr;
    for (int i = 1; i < argc && strcmp(argv[i], "--") != 0; ++i)
        if (strncmp(argv[i], option, option_length) == 0) {
            if (argv[i][option_length] == '=')
                dir = argv[i] + option_length + 1;
            else if (argv[i][option_length] == '\0' && i + 1 < argc)
                dir = argv[i + 1];
        }
    if (!dir || *dir == '\0' || strlen(dir) >= PATH_MAX / 2)
        return;
    char *to = setting + name_length;
    if (*dir != '/' && getcwd(to, PATH_MAX / 2)) {
        to += strlen(to);
        *to++ = '/';
    }
    strcpy(to, dir);
    size_t count = 0;
    changed[count++] = setting;
    for (char **at = environment; *at && count < std::size(changed) - 1; ++at) {
        if (strcmp(*at, setting) == 0) {
            chosen_state_dir = dir;
            return;
        }
        if (strncmp(*at, setting, name_length) != 0)
            changed[count++] = *at;
    }
    execve("/proc/self/exe", argv, changed);
}
__attribute__((section(".preinit_array"), used)) auto *const before_all = &choose_state_dir;

// The tool's own operations go to one pair of trace buffers, for all runs, under a job id that no
// job has: a pair for each process id would fill the disk.
void name_the_job()
{
    setenv("VS_JOB_ID", "4294967295", 0); // -1 in the buffers' names
    setenv("VS_JOB_NAME", "vskvs", 0);
}

// The tool works without trace buffers too, and complaints of the set-up would only hide what the
// command has to say.
void set_up_reports()
{
    fflush(stderr);
    const int stderr_copy = fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 3);
    const int nowhere = open("/dev/null", O_WRONLY | O_CLOEXEC);
    if (stderr_copy >= 0 && nowhere >= 0 && dup2(nowhere, STDERR_FILENO) >= 0) {
        vs_kvs_debug_init(0);
        dup2(stderr_copy, STDERR_FILENO);
    }
    close(nowhere);
    close(stderr_copy);
}

// Carries the command line out. What is printed has got out when this returns.
void carry_out(command_line &line, int argc, char **argv)
{
    try {
        line.app().parse(argc, argv);
        line.check_state_dir(chosen_state_dir);
        name_the_job();
        if (line.needs_reports())
            set_up_reports();
        line.run();
    } catch (const CLI::CallForHelp &) {
        print(line.app().help());
    } catch (const CLI::CallForVersion &version) {
        print(version.what() + std::string("\n"));
    }
    flush();
}

int run(int argc, char **argv)
{
    command_line line;
    try {
        carry_out(line, argc, argv);
        return 0;
    } catch (const CLI::ParseError &error) {
        line.app().exit(error);
        return 2;
    } catch (const wrong_usage &error) {
        complain(error.what());
        return 2;
    } catch (const std::bad_alloc &) {
        complain("out of memory");
    } catch (const std::exception &error) {
        fflush(stdout);
        complain(error.what());
    }
    return 1;
}

} // namespace

void status(const arguments &given)
{
    std::vector<uint32_t> codes;
    if (given.code) {
        codes.push_back(*given.code);
    } else {
        size_t count = 0;
        const fault_entry *const all = fault_catalogue(&count);
        for (size_t i = 0; i < count; ++i)
            codes.push_back(all[i].status);
    }
    json document = json::array();
    std::vector<std::vector<std::string>> rows;
    for (const uint32_t code : codes) {
        rows.push_back({status_code(code), status_name(code), fault_strerror(code)});
        document.push_back(
            {{"status", code}, {"name", status_name(code)}, {"text", rows.back()[2]}});
    }
    if (given.as_json)
        print_pretty(given.code ? document[0] : document);
    else
        print_table({{"STATUS", false}, {"NAME", false}, {"TEXT", false}}, rows);
}

} // namespace vskvs

int main(int argc, char **argv) { return vskvs::run(argc, argv); }
