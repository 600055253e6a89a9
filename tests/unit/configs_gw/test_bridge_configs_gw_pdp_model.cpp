/* The reconciliation of PDP profiles against a small model of it: random profiles on both sides, random
 * refusals of the modem, and modems that renumber what is behind a deleted profile. */
#include "configs_gw/gateway_sections.h"

#include <random>

static constexpr unsigned ROUNDS = 3000;

struct server_profile {
    std::string name, apn, connection, user, password, authentication, active;
};

struct scene {
    std::vector<modem_profile> gateway;
    std::vector<server_profile> server;
    int64_t working;
    unsigned refused; /* a bit for each operation */
    bool renumbers;
};

struct outcome {
    std::vector<std::string> calls;
    std::string reply;
    std::vector<modem_profile> profiles;
    int64_t working;
};

static const std::vector<std::string> CONNECTIONS = {"IP", "PPP", "IPV6"};
static const std::vector<std::string> AUTHENTICATIONS = {"None", "PAP", "CHAP"};

static std::string folded(std::string text)
{
    for (char &letter : text)
        letter = static_cast<char>(tolower(letter));
    return text;
}

static int64_t number_of(const std::vector<std::string> &words, const std::string &word)
{
    for (size_t i = 0; i < words.size(); i++) {
        if (folded(words[i]) == folded(word))
            return static_cast<int64_t>(i);
    }
    return -1;
}

static std::string member(const char *key, const std::string &text)
{
    return join({"\"", key, "\":\"", text, "\""});
}

static std::string text_of(const server_profile &profile, const std::string &behind = "")
{
    return join({"{", member("pdpProfileName", profile.name), ",", member("apnName", profile.apn), ",",
                 member("connectionType", profile.connection), ",", member("userName", profile.user), ",",
                 member("password", profile.password), ",", member("authType", profile.authentication), ",",
                 member("setActive", profile.active), behind, "}"});
}

static std::string context_member(int64_t context)
{
    return join({",\"contextId\":", std::to_string(context)});
}

static std::string text_of(const modem_profile &profile)
{
    return join({"{", member("pdpProfileName", profile.name), ",", member("apnName", profile.apn), ",",
                 member("userName", profile.user), ",", member("password", profile.password),
                 context_member(profile.context), ",",
                 member("connectionType", CONNECTIONS[static_cast<size_t>(profile.connection)]), ",",
                 member("authType", AUTHENTICATIONS[static_cast<size_t>(profile.authentication)]), "}"});
}

template <typename Profile> static std::string text_of(const std::vector<Profile> &profiles)
{
    std::string text = "[";
    for (const Profile &profile : profiles)
        text.append(text.size() > 1 ? "," : "").append(text_of(profile));
    return text + "]";
}

class model
{
  public:
    explicit model(const scene &given)
        : server_(given.server), start_(given.gateway), refused_(given.refused),
          renumbers_(given.renumbers), now_{{}, "", given.gateway, given.working}
    {
        read();
        if (!is_acceptable()) {
            now_.reply = R"({"status":"unable to write any pdp info"})";
            return;
        }
        remove();
        put();
        read();
        activate();
        read();
        tell("pdp full list", text_of(now_.profiles));
        now_.reply = join({"[", elements_, "]"});
    }

    outcome result() const
    {
        return now_;
    }

  private:
    template <typename Profile> static long count(const std::vector<Profile> &list, const std::string &name)
    {
        return std::count_if(list.begin(), list.end(),
                             [&](const Profile &each) { return folded(each.name) == folded(name); });
    }

    bool is_acceptable() const
    {
        long active = 0;
        for (const server_profile &profile : server_) {
            active += folded(profile.active) == "true" ? 1 : 0;
            if (count(start_, profile.name) > 1 || count(server_, profile.name) > 1)
                return false;
        }
        return active == 1;
    }

    void read()
    {
        now_.calls.insert(now_.calls.end(), {"get wmReadPdpProfile.0", "table"});
    }

    void tell(const std::string &status, const std::string &value)
    {
        elements_.append(elements_.empty() ? "" : ",")
            .append(join({"{", member("status", status), ",\"value\":", value, "}"}));
    }

    /* True when the modem carries it out. */
    bool operate(const std::string &call)
    {
        now_.calls.push_back(call);
        return (refused_ >> operations_++ & 1) == 0;
    }

    modem_profile *on_gateway(int64_t context)
    {
        for (modem_profile &each : now_.profiles) {
            if (each.context == context)
                return &each;
        }
        return nullptr;
    }

    void remove()
    {
        for (const modem_profile &each : start_) {
            if (count(server_, each.name) > 0)
                continue;
            const bool done = operate("wmRemovePdpProfile.0=" + std::to_string(each.context)) &&
                              on_gateway(each.context) != nullptr;
            tell(done ? "delete profile action succeeded" : "delete profile action failed", text_of(each));
            if (done)
                erase(each.context);
        }
    }

    /* The contexts of the first list are used all along, also where the modem has others by then. */
    void erase(int64_t context)
    {
        std::erase_if(now_.profiles, [&](const auto &other) { return other.context == context; });
        if (!renumbers_)
            return;
        for (modem_profile &each : now_.profiles)
            each.context -= each.context > context ? 1 : 0;
        now_.working -= now_.working > context ? 1 : 0;
    }

    bool write(const server_profile &from, size_t row, const std::string &trigger, modem_profile *to)
    {
        const int64_t connection = number_of(CONNECTIONS, from.connection);
        const int64_t authentication = number_of(AUTHENTICATIONS, from.authentication);
        const std::string place = join({".", std::to_string(row), "="});
        now_.calls.insert(now_.calls.end(),
                          {"wmPdpProfileName" + place + from.name, "wmPdpApnName" + place + from.apn,
                           "wmPdpConnectionType" + place + std::to_string(connection),
                           "wmPdpUserName" + place + from.user, "wmPdpPassword" + place + from.password,
                           "wmPdpAuthType" + place + std::to_string(authentication)});
        if (!operate(trigger) || to == nullptr)
            return false;
        *to = {from.name, from.apn, connection, from.user, from.password, authentication, to->context};
        return true;
    }

    static bool has_numbers(const server_profile &profile)
    {
        return number_of(CONNECTIONS, profile.connection) >= 0 &&
               number_of(AUTHENTICATIONS, profile.authentication) >= 0;
    }

    bool add(const server_profile &profile)
    {
        if (!has_numbers(profile))
            return false;
        now_.calls.emplace_back("get wmPdpProfileCount.0");
        modem_profile made = {};
        if (!write(profile, now_.profiles.size() + 1, "wmAddPdpProfile.0=1", &made))
            return false;
        for (made.context = 1; on_gateway(made.context) != nullptr;)
            made.context++;
        now_.profiles.push_back(made);
        return true;
    }

    bool modify(const server_profile &profile, int64_t context)
    {
        if (!has_numbers(profile))
            return false;
        return write(profile, static_cast<size_t>(context), "wmModifyPdpProfile.0=" + std::to_string(context),
                     on_gateway(context));
    }

    static bool is_same(const server_profile &left, const modem_profile &right)
    {
        return folded(left.apn) == folded(right.apn) && folded(left.user) == folded(right.user) &&
               folded(left.password) == folded(right.password) &&
               number_of(CONNECTIONS, left.connection) == right.connection &&
               number_of(AUTHENTICATIONS, left.authentication) == right.authentication;
    }

    void put()
    {
        for (const server_profile &each : server_) {
            const auto same = std::find_if(start_.begin(), start_.end(), [&](const modem_profile &other) {
                return folded(other.name) == folded(each.name);
            });
            if (same == start_.end())
                tell(add(each) ? "add profile action succeeded" : "add profile action failed", text_of(each));
            else if (is_same(each, *same))
                tell("profile already exists and same as the requested settings", text_of(each));
            else
                tell(modify(each, same->context) ? "modify profile action succeeded"
                                                 : "modify profile action failed",
                     text_of(each));
        }
    }

    void activate()
    {
        for (const server_profile &each : server_) {
            if (folded(each.active) != "true")
                continue;
            const auto found =
                std::find_if(now_.profiles.begin(), now_.profiles.end(), [&](const modem_profile &other) {
                    return folded(other.name) == folded(each.name);
                });
            if (found == now_.profiles.end()) {
                tell("activate profile action failed", text_of(each));
                continue;
            }
            now_.calls.emplace_back("get wmPdpWorkingProfile.0");
            if (now_.working == found->context) {
                tell("the profile is already the active one", text_of(each, context_member(found->context)));
                continue;
            }
            /* The types are of no use here, but unknown ones are refused like everywhere. */
            const bool done =
                has_numbers(each) && operate("wmPdpWorkingProfile.0=" + std::to_string(found->context));
            if (done)
                now_.working = found->context;
            tell(done ? "activate profile action succeeded" : "activate profile action failed",
                 text_of(each));
        }
    }

    std::vector<server_profile> server_;
    std::vector<modem_profile> start_;
    unsigned refused_;
    bool renumbers_;
    size_t operations_ = 0;
    std::string elements_;
    outcome now_;
};

/* ---- random scenes ---- */

class dice
{
  public:
    explicit dice(unsigned seed) : source_(seed)
    {
    }

    size_t below(size_t limit)
    {
        return source_() % limit;
    }

    std::string one_of(const std::vector<std::string> &words)
    {
        return words[below(words.size())];
    }

    scene throw_scene()
    {
        scene made = {{},
                      {},
                      static_cast<int64_t>(below(4)),
                      below(3) == 0 ? static_cast<unsigned>(source_()) : 0U,
                      below(2) == 0};
        for (size_t i = below(5); i > 0; i--)
            made.gateway.push_back({one_of(NAMES), one_of(APNS), static_cast<int64_t>(below(3)),
                                    one_of(USERS), "p", static_cast<int64_t>(below(3)),
                                    static_cast<int64_t>(made.renumbers ? made.gateway.size() + 1
                                                                        : made.gateway.size() * 2 + 1)});
        const size_t count = below(5);
        const size_t active = below(count + 1);
        for (size_t i = 0; i < count; i++)
            made.server.push_back(wanted(made, i == active || below(20) == 0));
        return made;
    }

  private:
    /* Often with the settings of one of the gateway's. */
    server_profile wanted(const scene &made, bool is_active)
    {
        server_profile profile = {one_of(NAMES),
                                  one_of(APNS),
                                  one_of(CONNECTION_WORDS),
                                  one_of(USERS),
                                  "P",
                                  one_of(AUTHENTICATION_WORDS),
                                  is_active ? one_of({"True", "TRUE", "true"}) : one_of({"False", "", "1"})};
        if (!made.gateway.empty() && below(3) == 0) {
            const modem_profile &like = made.gateway[below(made.gateway.size())];
            profile.name = below(2) == 0 ? like.name : folded(like.name);
            profile.apn = like.apn;
            profile.connection = folded(CONNECTIONS[static_cast<size_t>(like.connection)]);
            profile.user = like.user;
            profile.authentication = AUTHENTICATIONS[static_cast<size_t>(like.authentication)];
        }
        return profile;
    }

    const std::vector<std::string> NAMES = {"a", "A", "b", "B", "c", "D", "e", "f", "g"};
    const std::vector<std::string> APNS = {"iot.example", "IOT.example", "backup"};
    const std::vector<std::string> USERS = {"", "user"};
    const std::vector<std::string> CONNECTION_WORDS = {"IP", "ip", "PPP", "IPV6", "IPv6", "IPV4"};
    const std::vector<std::string> AUTHENTICATION_WORDS = {"None", "NONE", "PAP", "chap", "CHAPS"};
    std::mt19937 source_;
};

static std::vector<std::string> texts_of(const std::vector<modem_profile> &profiles)
{
    std::vector<std::string> texts;
    for (const modem_profile &profile : profiles)
        texts.push_back(text_of(profile));
    return texts;
}

class PdpModel : public GatewaySections
{
};

TEST_F(PdpModel, RandomListsEndAsTheModelTells)
{
    size_t applied = 0;
    for (unsigned seed = 0; seed < ROUNDS && !HasFailure(); seed++) {
        const scene given = dice(seed).throw_scene();
        modem = {};
        modem.profiles = given.gateway;
        modem.working = given.working;
        modem.renumbers = given.renumbers;
        modem.refuses = [&](size_t number) { return (given.refused >> number & 1) != 0; };
        const section_outcome written = write_sections(
            join({R"({"networkConfiguration":{"cellular":{"pdpProfile":)", text_of(given.server), "}}}"}));
        const outcome expected = model(given).result();
        SCOPED_TRACE(join({"seed ", std::to_string(seed), ", server ", text_of(given.server), ", gateway ",
                           text_of(given.gateway)}));
        EXPECT_EQ(written.result, 0);
        EXPECT_EQ(written.reply,
                  join({R"({"networkConfiguration":{"cellular":{"pdpProfile":)", expected.reply, "}}}"}));
        EXPECT_EQ(modem.calls, expected.calls);
        EXPECT_EQ(texts_of(modem.profiles), texts_of(expected.profiles));
        EXPECT_EQ(modem.working, expected.working);
        applied += expected.reply[0] == '[' ? 1U : 0U;
    }
    EXPECT_GT(applied, ROUNDS / 4) << "most scenes are refused: they show too little";
}
