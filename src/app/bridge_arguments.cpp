/* Options of the daemon, by the system library's parser. */
#include "app/bridge_arguments.h"

#include "common/bridge_config.h"

#include <argp.h>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

const char *argp_program_version = "snv_mqtt_bridge 1.11.1";

static constexpr int32_t DEFAULT_LOG_LEVEL = 2;
static constexpr long MAX_LOG_LEVEL = 4;

/* clang-format off */
static const argp_option OPTIONS[] = {
    {"foreground", 'F', nullptr, 0, "<NOT-IMPLEMENTED> Run in foreground, do not daemonize. Logs will be displayed in standard output", 0},
    {"paranoid",   'p', nullptr, 0, "<NOT-IMPLEMENTED> Paranoid mode: terminate immediately if configuration file contains invalid optional values or unknown keys. Running with this flag can break backward compatibility.", 0},
    {"no-udp",     'u', nullptr, 0, "Do not run Sarnivel MQTT NS <-> Semtech UDP bridge.", 0},
    {"no-snmp",    's', nullptr, 0, "Do not run Sarnivel MQTT NS <-> Sarnivel SNMP bridge.", 0},
    {"config",     'c', "FILE",  0, "Path to configuration file", 0},
    {"stderr",     'd', nullptr, 0, "Send log messages to the standard error descriptor instead of syslog. Implies -F.", 0},
    {"verbose",    'v', "LEVEL", 0, "Logs verbosity level:\n0 - ERROR, 1 - WARN, 2 - INFO, 3 - DEBUG, 4 - TRACE", 0},
    {},
};
/* clang-format on */

static void set_foreground(bridge_args *args)
{
    fputs("foreground mode on\n", stderr);
    args->foreground = true;
}

/* What follows the digits is passed over. */
static error_t set_log_level(const char *text, argp_state *state, bridge_args *args)
{
    char *end = nullptr;
    const long level = strtol(text, &end, 10);
    if (end == text || level < 0 || level > MAX_LOG_LEVEL) {
        fprintf(stderr, "Invalid log level value: %s\n", text);
        argp_usage(state);
        return EINVAL;
    }
    args->log_level = static_cast<int32_t>(level);
    fprintf(stderr, "log level: %d\n", args->log_level);
    return 0;
}

static error_t parse_option(int key, char *argument, argp_state *state)
{
    auto *args = static_cast<bridge_args *>(state->input);
    switch (key) {
    case 'F':
        set_foreground(args);
        return 0;
    case 'p':
        fputs("paranoid mode on\n", stderr);
        args->paranoid = true;
        return 0;
    case 'u':
        fputs("disabling UDP bridge\n", stderr);
        args->no_udp = true;
        return 0;
    case 's':
        fputs("disabling SNMP bridge\n", stderr);
        args->no_snmp = true;
        return 0;
    case 'c':
        fprintf(stderr, "cfg file: %s\n", argument);
        args->config_path = argument;
        return 0;
    case 'd':
        fputs("logging to stderr is on\n", stderr);
        args->log_to_stderr = true;
        set_foreground(args);
        return 0;
    case 'v':
        return set_log_level(argument, state, args);
    default:
        return ARGP_ERR_UNKNOWN;
    }
}

static const argp PARSER = {OPTIONS, parse_option, nullptr, "Sarnivel MQTT bridge 1.11.1",
                            nullptr, nullptr,      nullptr};

int bridge_arguments_parse(int argc, char **argv, bridge_args *args)
{
    *args = {.paranoid = true, .log_level = DEFAULT_LOG_LEVEL};
    return argp_parse(&PARSER, argc, argv, 0, nullptr, args);
}

void bridge_arguments_print_help(const char *program)
{
    static constexpr unsigned WHOLE_HELP =
        ARGP_HELP_SHORT_USAGE | ARGP_HELP_LONG | ARGP_HELP_PRE_DOC | ARGP_HELP_POST_DOC | ARGP_HELP_BUG_ADDR;
    argp_help(&PARSER, stderr, WHOLE_HELP, const_cast<char *>(program));
}
