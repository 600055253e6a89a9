/* A gateway's agent in memory, in place of the SNMP client: its interfaces, and a modem with its profiles and
 * SIM PINs that does at once what it is told. */
#ifndef FAKE_MODEM_H
#define FAKE_MODEM_H

#include <cstdint>
#include <functional>
#include <map>
#include <string>
#include <vector>

static constexpr int64_t NO_CONTEXT = -1; /* the row has no such cell */

struct modem_profile {
    std::string name;
    std::string apn;
    int64_t connection;
    std::string user;
    std::string password;
    int64_t authentication;
    int64_t context;
};

class fake_modem
{
  public:
    std::vector<modem_profile> profiles;
    int64_t working = 0;
    bool renumbers = false;                   /* a delete takes 1 from every context above it */
    std::map<std::string, int64_t> numbers;   /* other objects; one without is not there */
    std::map<std::string, std::string> texts; /* the same */
    std::map<std::string, std::string> written;
    std::string done = "Operation completed successfully"; /* the modem's word on each operation */

    /* "get <object>", "table", "<object>=<value>", several of one request with a blank between them. Reads of
     * a status are left out. */
    std::vector<std::string> calls;

    /* Calls that begin so fail, after as many that do not. */
    void fail(const std::string &start, int after = 0);
    void fail_once(const std::string &start, int after);

    /* Of the operations on profiles, counted from 0, those that the modem does not carry out. */
    std::function<bool(size_t number)> refuses = [](size_t) { return false; };

    /* Told before and behind what the stand-ins do themselves. */
    std::function<void(bool begins)> stands_apart = [](bool) {};

    /* For the stand-ins. */
    int note(const std::string &call);
    void write(const std::string &object, const std::string &value);

  private:
    bool operate(const std::string &object, int64_t number);
    void remove(int64_t context);
    void fill(modem_profile *profile, int64_t row);
    int64_t free_context() const;

    std::string failing_;
    int after_ = 0;
    bool once_ = false;
    size_t operations_ = 0;
    std::map<std::string, std::string> staged_; /* by column and row, until an operation */
};

extern fake_modem modem;

#endif
