/* The stand-in gateway's SNMP agent: the command line, the library's set-up and the loop. */
#include <cstdio>
#include <cstdlib>
#include <string>

#include <getopt.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <net-snmp/net-snmp-config.h>
#include <net-snmp/net-snmp-includes.h>

#include <net-snmp/agent/net-snmp-agent-includes.h>
#include <net-snmp/library/fd_event_manager.h>

#include "behaviours.h"
#include "control.h"
#include "help.h"
#include "notify.h"
#include "requests.h"
#include "scenario.h"

static constexpr char application[] = "lab_agent";
/* A folder in which nothing can be found or made. */
static constexpr char nowhere[] = "/dev/null/lab_agent";

struct options {
    std::string scenario;
    std::string mibs;
    std::string listen = "udp:127.0.0.1:1161";
    std::string community = "public";
    std::string trap_to;
    int control_port = 0;
};

static bool is_stopping;

static void on_signal(int descriptor, void *)
{
    struct signalfd_siginfo information;
    is_stopping = read(descriptor, &information, sizeof(information)) > 0;
}

/* Signals arrive as events of the loop, so that none falls between a look at the flag and the wait. */
static bool catch_signals()
{
    sigset_t caught;
    sigemptyset(&caught);
    sigaddset(&caught, SIGTERM);
    sigaddset(&caught, SIGINT);
    sigprocmask(SIG_BLOCK, &caught, nullptr);
    int descriptor = signalfd(-1, &caught, SFD_CLOEXEC);
    return descriptor >= 0 && register_readfd(descriptor, on_signal, nullptr) == FD_REGISTERED_OK;
}

/* Nothing of the host is read or written: no configuration, no persistent state, no MIB but the given ones.
 */
static void prepare_library(const std::string &mibs)
{
    setenv("MIBS", "ALL", 1);
    setenv("MIBDIRS", mibs.c_str(), 1);
    setenv("SNMPCONFPATH", nowhere, 1);
    netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_READ_CONFIGS, 1);
    netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DONT_PERSIST_STATE, 1);
    netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DISABLE_PERSISTENT_LOAD, 1);
    netsnmp_ds_set_boolean(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_DISABLE_PERSISTENT_SAVE, 1);
    netsnmp_ds_set_string(NETSNMP_DS_LIBRARY_ID, NETSNMP_DS_LIB_PERSISTENT_DIR, nowhere);
    /* The library complains of folders and access rules that are missing on purpose. */
    netsnmp_log_handler *quiet = netsnmp_register_loghandler(NETSNMP_LOGHANDLER_NONE, LOG_DEBUG);
    init_agent(application);
    init_snmp(application);
    netsnmp_remove_loghandler(quiet);
    snmp_enable_stderrlog();
}

static int usage(const char *text)
{
    fprintf(stderr, "lab_agent: %s; --help tells more\n", text);
    return 2;
}

static bool read_options(int argc, char **argv, options *wanted)
{
    static const struct option known[] = {
        {"scenario", required_argument, nullptr, 's'}, {"mibs", required_argument, nullptr, 'm'},
        {"listen", required_argument, nullptr, 'l'},   {"community", required_argument, nullptr, 'c'},
        {"trap-to", required_argument, nullptr, 't'},  {"control", required_argument, nullptr, 'p'},
        {"help", no_argument, nullptr, 'h'},           {},
    };
    for (int chosen = 0; (chosen = getopt_long(argc, argv, "", known, nullptr)) != -1;) {
        switch (chosen) {
        case 's':
            wanted->scenario = optarg;
            break;
        case 'm':
            wanted->mibs = optarg;
            break;
        case 'l':
            wanted->listen = optarg;
            break;
        case 'c':
            wanted->community = optarg;
            break;
        case 't':
            wanted->trap_to = optarg;
            break;
        case 'p':
            wanted->control_port = atoi(optarg);
            break;
        case 'h':
            fputs(lab_help, stdout);
            exit(0);
        default:
            return false;
        }
    }
    return optind == argc;
}

/* The MIBs lie beside the scenarios' folder. */
static std::string mibs_beside(const std::string &scenario)
{
    size_t slash = scenario.rfind('/');
    return (slash != std::string::npos ? scenario.substr(0, slash + 1) : std::string()) + "../mibs";
}

static bool start(const options &wanted)
{
    prepare_library(wanted.mibs);
    lab_names_load();
    if (lab_name_find("agentVersion") == nullptr) {
        fprintf(stderr, "lab agent: the gateway's MIB is not in %s\n", wanted.mibs.c_str());
        return false;
    }
    lab_notify_to(wanted.trap_to, wanted.community);
    if (!lab_scenario_load(wanted.scenario) || !catch_signals())
        return false;
    int control_port = lab_control_open(wanted.control_port);
    if (control_port < 0 || !lab_requests_open(wanted.listen, wanted.community))
        return false;
    printf("{\"ready\":true,\"snmp\":\"%s\",\"control\":%d}\n", wanted.listen.c_str(), control_port);
    fflush(stdout);
    lab_trigger_start();
    return true;
}

int main(int argc, char **argv)
{
    options wanted;
    if (!read_options(argc, argv, &wanted))
        return usage("wrong arguments");
    if (wanted.scenario.empty())
        return usage("no --scenario given");
    if (wanted.mibs.empty())
        wanted.mibs = mibs_beside(wanted.scenario);
    bool started = start(wanted);
    while (started && !is_stopping)
        agent_check_and_process(1);
    lab_control_close();
    lab_requests_close();
    snmp_shutdown(application);
    shutdown_agent();
    return started ? 0 : 1;
}
