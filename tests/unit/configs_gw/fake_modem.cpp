#include "configs_gw/fake_modem.h"

#include "common/bridge_json_helpers.h"
#include "config/captured_log.h"
#include "converter/control/bridge_snmp.h"
#include "converter/control/bridge_snmp_helpers.h"

#include <cstring>

fake_modem modem;

static constexpr const char *PDP_STATUS = "wmPdpLastOperationStatus.0";
static constexpr const char *PIN_STATUS = "wmSimPinOpStatus.0";

void fake_modem::fail(const std::string &start, int after)
{
    failing_ = start;
    after_ = after;
    once_ = false;
}

void fake_modem::fail_once(const std::string &start, int after)
{
    fail(start, after);
    once_ = true;
}

int fake_modem::note(const std::string &call)
{
    calls.push_back(call);
    if (failing_.empty() || !call.starts_with(failing_) || after_-- > 0)
        return 0;
    if (once_)
        failing_.clear();
    return -5;
}

/* Throws without all six columns. */
void fake_modem::fill(modem_profile *profile, int64_t row)
{
    const auto staged = [&](const char *column) {
        return staged_.at(join({column, ".", std::to_string(row)}));
    };
    profile->name = staged("wmPdpProfileName");
    profile->apn = staged("wmPdpApnName");
    profile->connection = std::stoll(staged("wmPdpConnectionType"));
    profile->user = staged("wmPdpUserName");
    profile->password = staged("wmPdpPassword");
    profile->authentication = std::stoll(staged("wmPdpAuthType"));
}

int64_t fake_modem::free_context() const
{
    int64_t context = 1;
    while (std::any_of(profiles.begin(), profiles.end(),
                       [&](const modem_profile &each) { return each.context == context; }))
        context++;
    return context;
}

void fake_modem::remove(int64_t context)
{
    std::erase_if(profiles, [&](const modem_profile &each) { return each.context == context; });
    if (!renumbers)
        return;
    for (modem_profile &each : profiles)
        each.context -= each.context > context ? 1 : 0;
    working -= working > context ? 1 : 0;
}

/* False for a context that is not there: only a modem that renumbers is asked for one. */
bool fake_modem::operate(const std::string &object, int64_t number)
{
    const auto found = std::find_if(profiles.begin(), profiles.end(),
                                    [&](const modem_profile &each) { return each.context == number; });
    if (object == "wmAddPdpProfile.0") {
        EXPECT_EQ(number, 1);
        modem_profile profile = {};
        fill(&profile, static_cast<int64_t>(profiles.size()) + 1);
        profile.context = free_context();
        profiles.push_back(profile);
        return true;
    }
    if (found == profiles.end()) {
        EXPECT_TRUE(renumbers) << object << " " << number;
        return false;
    }
    if (object == "wmModifyPdpProfile.0")
        fill(&*found, number);
    else if (object == "wmRemovePdpProfile.0")
        remove(number);
    else if (object == "wmPdpWorkingProfile.0")
        working = number;
    else
        ADD_FAILURE() << object;
    return true;
}

void fake_modem::write(const std::string &object, const std::string &value)
{
    if (!object.starts_with("wmPdp") && !object.ends_with("PdpProfile.0")) {
        written[object] = value;
        return;
    }
    if (!object.ends_with(".0")) {
        staged_[object] = value;
        return;
    }
    const bool is_refused = refuses(operations_++) || !operate(object, std::stoll(value));
    staged_.clear();
    texts[PDP_STATUS] = is_refused ? "Failed" : done;
}

/* ---- the client ---- */

static int read_number(const std::string &object, int64_t *number)
{
    if (object == "wmPdpProfileCount.0")
        *number = static_cast<int64_t>(modem.profiles.size());
    else if (object == "wmPdpWorkingProfile.0")
        *number = modem.working;
    else if (object == "wmReadPdpProfile.0")
        *number = 0;
    else if (modem.numbers.count(object) > 0)
        *number = modem.numbers[object];
    else
        return -1;
    return 0;
}

int bridge_snmp_get_property_int(converter_ctx *, const char *object, long *number, uint32_t)
{
    if (modem.note(join({"get ", object})) < 0)
        return -5;
    if (strcmp(object, "wmReadPdpProfile.0") == 0)
        modem.texts[PDP_STATUS] = modem.done;
    int64_t value = 0;
    const int result = read_number(object, &value);
    *number = static_cast<long>(value);
    return result;
}

int bridge_snmp_get_property_str(converter_ctx *, const char *object, char *buffer, size_t *size, uint32_t)
{
    const bool is_status = strcmp(object, PDP_STATUS) == 0 || strcmp(object, PIN_STATUS) == 0;
    if (modem.note(join({"get ", object})) < 0)
        return -5;
    if (is_status)
        modem.calls.pop_back();
    const auto found = modem.texts.find(object);
    if (found == modem.texts.end() || found->second.size() >= *size)
        return -1;
    memcpy(buffer, found->second.c_str(), found->second.size() + 1);
    *size = found->second.size();
    return 0;
}

int bridge_snmp_get_properties(converter_ctx *, const bridge_snmp_read_prop *props, uint32_t)
{
    std::string call = "get";
    for (const bridge_snmp_read_prop *prop = props; prop->oid != nullptr; prop++)
        call.append(" ").append(prop->oid);
    if (modem.note(call) < 0)
        return -5;
    for (const bridge_snmp_read_prop *prop = props; prop->oid != nullptr; prop++) {
        EXPECT_EQ(prop->type, PROP_TYPE_INT);
        if (read_number(prop->oid, static_cast<int64_t *>(prop->buf)) < 0)
            return -1;
    }
    return 0;
}

static std::string text_of(const bridge_snmp_write_prop &prop)
{
    if (prop.type == PROP_TYPE_STRING)
        return static_cast<const char *>(prop.value);
    if (prop.type == PROP_TYPE_INT)
        return std::to_string(*static_cast<const int64_t *>(prop.value));
    EXPECT_EQ(prop.type, PROP_TYPE_JSON);
    json_object *value = nullptr;
    json_object_object_get_ex(static_cast<const json_object *>(prop.value), prop.field_name, &value);
    EXPECT_TRUE(json_object_is_type(value, prop.hint == PROP_TYPE_INT ? json_type_int : json_type_string));
    return json_object_get_string(value);
}

int bridge_snmp_set_properties(converter_ctx *, const bridge_snmp_write_prop *props, uint32_t)
{
    std::string call;
    for (const bridge_snmp_write_prop *prop = props; prop->oid != nullptr; prop++)
        call.append(call.empty() ? "" : " ").append(join({prop->oid, "=", text_of(*prop)}));
    if (modem.note(call) < 0)
        return -5;
    for (const bridge_snmp_write_prop *prop = props; prop->oid != nullptr; prop++)
        modem.write(prop->oid, text_of(*prop));
    return 0;
}

int bridge_snmp_set_property(converter_ctx *, const char *object, const char *value, uint32_t)
{
    if (modem.note(join({object, "=", value})) < 0)
        return -5;
    modem.write(object, value);
    return 0;
}

static json_object *cell(const modem_profile &profile, const std::string &column)
{
    if (column == "wmPdpProfileName")
        return json_object_new_string(profile.name.c_str());
    if (column == "wmPdpApnName")
        return json_object_new_string(profile.apn.c_str());
    if (column == "wmPdpConnectionType")
        return json_object_new_int64(profile.connection);
    if (column == "wmPdpUserName")
        return json_object_new_string(profile.user.c_str());
    if (column == "wmPdpPassword")
        return json_object_new_string(profile.password.c_str());
    if (column == "wmPdpAuthType")
        return json_object_new_int64(profile.authentication);
    EXPECT_EQ(column, "wmPdpCid");
    if (profile.context == NO_CONTEXT)
        return nullptr;
    return json_object_new_int64(profile.context);
}

int bridge_snmp_get_exact_table_as_json(converter_ctx *, const bridge_snmp_column *mapping, const char *index,
                                        json_object **out)
{
    if (modem.note("table") < 0)
        return -1;
    EXPECT_EQ(index, nullptr);
    modem.stands_apart(true);
    *out = json_object_new_array();
    for (const modem_profile &profile : modem.profiles) {
        json_object *row = json_object_new_object();
        for (const bridge_snmp_column *column = mapping; column->field_name != nullptr; column++) {
            if (json_object *value = cell(profile, column->oid))
                json_object_object_add(row, column->field_name, value);
        }
        json_object_array_add(*out, row);
    }
    modem.stands_apart(false);
    return 0;
}

int bridge_snmp_get_table_as_json(converter_ctx *, const bridge_snmp_column *, const char *, json_object **)
{
    ADD_FAILURE() << "no table follows its count here";
    return -1;
}
