// SPDX-License-Identifier: Apache-2.0
// Fan control for the host: a fixed duty for one fan or all of them, the way
// back to the fan-control service's automatic mode, the mode and PWM targets
// as the service sees them, and the per-sensor parameters the service reads
// from its parameter file. The service owns the truth; nothing is cached.

#include "thermal/fans.hpp"

#include "dbus.hpp"
#include "oem/utils.hpp"
#include "oem/wire.hpp"
#include "thermal/tables.hpp"

#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>

using oem::wire::requestByte;

namespace
{

constexpr const char* fanModePath = "/var/log/fan_mode";
constexpr const char* sensorsRoot = "/xyz/openbmc_project/sensors";
constexpr const char* fanPwmInterface = "xyz.openbmc_project.Control.FanPwm";

// Bytes 1..7 of the fan information: one per fan.
constexpr size_t reportedFans = 7;
constexpr uint8_t maxFan = 7;
constexpr uint8_t maxDuty = 100;

enum FanConfigStatus : uint8_t
{
    fanConfigDone = 0,
    fanConfigBadAction = 1,
    fanConfigBadFan = 2,
    fanConfigBadDuty = 3,
    fanConfigNoPwmFile = 5,
};

void runShell(const char* command)
{
    // Fire and forget: the fan-control service reacts in its own time.
    [[maybe_unused]] int status = system(command);
}

void pwmPath(char (&path)[64], int channel)
{
    snprintf(path, sizeof(path), "/sys/class/hwmon/hwmon0/pwm%d", channel);
}

uint8_t setFanConfig(uint8_t action, uint8_t fan, uint8_t duty)
{
    if (action == 1)
    {
        runShell(" busctl set-property  org.openbmc.control.FanMode "
                 "/org/openbmc/control/fanmode org.openbmc.control.FanMode "
                 "setFanmode s stand ");
        return fanConfigDone;
    }
    if (action >= 2)
    {
        return fanConfigBadAction;
    }
    if (fan > maxFan)
    {
        return fanConfigBadFan;
    }
    if (duty > maxDuty)
    {
        return fanConfigBadDuty;
    }
    if (fan == 0)
    {
        // The service takes the duty of all fans in percent.
        char command[256];
        snprintf(command, sizeof(command),
                 "busctl set-property  org.openbmc.control.FanMode "
                 "/org/openbmc/control/fanmode org.openbmc.control.FanMode  "
                 "setPwm i %d ",
                 duty);
        runShell(command);
        return fanConfigDone;
    }
    char path[64];
    pwmPath(path, sensorFAN_pwm[fan - 1]);
    FILE* file = fopen(path, "w");
    if (file == nullptr)
    {
        printf("open FanTable false");
        fflush(stdout);
        return fanConfigNoPwmFile;
    }
    // A single fan is driven directly, in raw PWM units. A value the
    // driver did not take is no duty set.
    bool ok = fprintf(file, "%d", duty * 255 / 100) > 0;
    if (fclose(file) != 0 || !ok)
    {
        printf("open FanTable false");
        fflush(stdout);
        return fanConfigNoPwmFile;
    }
    return fanConfigDone;
}

struct ParamLine
{
    long offset = 0;
    std::string text;      // without its newline, cut at fanParamLineMax
    bool complete = false; // ended by a newline, not by the end of the file
    bool tooLong = false;
};

// Reads the next line whole, however long, keeping only its head; false at
// the end of the file.
bool nextLine(FILE* file, ParamLine& line)
{
    line.offset = ftell(file);
    line.text.clear();
    line.complete = false;
    line.tooLong = false;
    int c = 0;
    bool any = false;
    while ((c = getc(file)) != EOF)
    {
        any = true;
        if (c == '\n')
        {
            line.complete = true;
            break;
        }
        if (line.text.size() < oem::thermal::fanParamLineMax)
        {
            line.text.push_back(static_cast<char>(c));
        }
        else
        {
            line.tooLong = true;
        }
    }
    return any;
}

// Whether the line is the one of sensor id. A line the fan-control service
// could not have written (too long, or cut off by the end of the file) never
// is: its tail must not be taken for a line of its own.
bool matches(const ParamLine& line, uint8_t id)
{
    if (!line.complete || line.tooLong)
    {
        return false;
    }
    const char* start = line.text.c_str();
    char* end = nullptr;
    uint32_t key = oem::strtoul32(start, &end, 16);
    return end != start && key == id;
}

enum class Search
{
    found,
    notFound,
    ioError,
};

Search findLine(FILE* file, uint8_t id, ParamLine& line)
{
    while (nextLine(file, line))
    {
        if (matches(line, id))
        {
            return Search::found;
        }
    }
    return ferror(file) != 0 ? Search::ioError : Search::notFound;
}

// The fields of a line, split at ':'; up to ten are taken, six are kept.
oem::thermal::FanParams parseFields(const std::string& text)
{
    oem::thermal::FanParams params{};
    size_t start = 0;
    for (size_t field = 0; field < 10 && start <= text.size(); ++field)
    {
        size_t end = text.find(':', start);
        if (end == std::string::npos)
        {
            end = text.size();
        }
        if (field < params.size())
        {
            std::string token = text.substr(start, end - start);
            params[field] = static_cast<uint8_t>(
                oem::strtoul32(token.c_str(), nullptr, 16));
        }
        start = end + 1;
    }
    return params;
}

ipmi_ret_t paramFailure(ipmi_response_t response, ipmi_data_len_t dataLen,
                        ipmi_ret_t code)
{
    static_cast<uint8_t*>(response)[0] = 1;
    *dataLen = 1;
    return code;
}

FILE* openParamFile(ipmi_cmd_t cmd)
{
    FILE* file = fopen(oem::thermal::fanParamPath, "r+");
    if (file == nullptr)
    {
        fprintf(stderr, "cmd(0x%x):%s does not exist!\n", cmd,
                oem::thermal::fanParamPath);
    }
    return file;
}

void reportUnknownSensor(ipmi_request_t request, uint32_t length)
{
    // Deliberately request byte 1, not the sensor ID.
    fprintf(stderr, "cmd(0x%x):please enter correct sensorID!\n",
            requestByte(request, length, 1));
}

} // namespace

namespace oem::thermal
{

std::array<char, fanParamLineWidth + 1>
    formatFanParamLine(const FanParams& params)
{
    std::array<char, fanParamLineWidth + 1> text{};
    snprintf(text.data(), text.size(),
             "0x%02X:0x%02X:0x%02X:0x%02X:0x%02X:0x%02X\n", params[0],
             params[1], params[2], params[3], params[4], params[5]);
    return text;
}

FanParamResult readFanParams(FILE* file, uint8_t id, FanParams& params)
{
    ParamLine line;
    switch (findLine(file, id, line))
    {
        case Search::found:
            params = parseFields(line.text);
            return FanParamResult::found;
        case Search::ioError:
            return FanParamResult::ioError;
        case Search::notFound:
            break;
    }
    return FanParamResult::notFound;
}

FanParamResult writeFanParams(FILE* file, const FanParams& params)
{
    ParamLine line;
    switch (findLine(file, params[0], line))
    {
        case Search::ioError:
            return FanParamResult::ioError;
        case Search::notFound:
            return FanParamResult::notFound;
        case Search::found:
            break;
    }
    // Anything but an exact overwrite would eat into the next line or leave
    // the tail of this one behind.
    if (line.text.size() + 1 != fanParamLineWidth)
    {
        return FanParamResult::badWidth;
    }
    auto text = formatFanParamLine(params);
    if (fseek(file, line.offset, SEEK_SET) != 0 ||
        fwrite(text.data(), 1, fanParamLineWidth, file) != fanParamLineWidth ||
        fflush(file) != 0)
    {
        return FanParamResult::ioError;
    }
    return FanParamResult::found;
}

} // namespace oem::thermal

using oem::thermal::FanParamResult;
using oem::thermal::FanParams;

int fan_get_fan_mode(uint8_t* mode)
{
    FILE* file = fopen(fanModePath, "r");
    if (file == nullptr)
    {
        printf("open %s false ", fanModePath);
        fflush(stdout);
        *mode = 1;
        return -1;
    }
    char buff[8] = {};
    if (fgets(buff, sizeof(buff), file) == nullptr)
    {
        buff[0] = '\0';
    }
    fclose(file);
    char word[8] = {};
    if (sscanf(buff, "%7s", word) != 1)
    {
        word[0] = '\0';
    }
    printf(" buff=%s fan_mode=%s \n", buff, word);
    fflush(stdout);
    *mode = strcmp(word, "auto") == 0 ? 1 : 0;
    return 0;
}

int fan_get_pwmfile(int channel, uint8_t* value)
{
    char path[64];
    pwmPath(path, channel);
    FILE* file = fopen(path, "r");
    if (file == nullptr)
    {
        printf("open Sorrelind_FanTable false ");
        fflush(stdout);
        return -1;
    }
    char text[4] = {};
    size_t got = fread(text, 1, 3, file);
    fclose(file);
    text[got] = '\0';
    int number = 0;
    if (sscanf(text, "%d", &number) != 1)
    {
        number = 0;
    }
    *value = static_cast<uint8_t>(number & 0xFF);
    return 0;
}

ipmi_ret_t ipmi_vel_oem_set_fan_config(ipmi_netfn_t, ipmi_cmd_t,
                                       ipmi_request_t request,
                                       ipmi_response_t response,
                                       ipmi_data_len_t data_len, ipmi_context_t)
{
    uint32_t length = *data_len;
    uint8_t action = requestByte(request, length, 0);
    // A cut request must not stop the fans with a duty it never carried.
    if (length < 1 || (action == 0 && length < 3))
    {
        *data_len = 0;
        return IPMI_CC_REQ_DATA_LEN_INVALID;
    }
    uint8_t status = setFanConfig(action, requestByte(request, length, 1),
                                  requestByte(request, length, 2));
    return oem::wire::reply(response, data_len, {status});
}

ipmi_ret_t ipmi_vel_oem_get_fan_info(ipmi_netfn_t, ipmi_cmd_t, ipmi_request_t,
                                     ipmi_response_t response,
                                     ipmi_data_len_t data_len, ipmi_context_t)
{
    uint8_t info[1 + reportedFans] = {};
    fan_get_fan_mode(&info[0]);

    oem::ObjectTree objects;
    try
    {
        objects = dbus.getAllDbusObjects(sensorsRoot, fanPwmInterface);
    }
    catch (const std::exception&)
    {
        fprintf(stderr, "Failed to fetch FanPwm object from dbus.\n");
    }

    // A failed read or a Target of another type than uint64 escapes: the
    // daemon answers its generic failure rather than a made-up duty.
    size_t index = 0;
    for (const auto& [path, services] : objects)
    {
        if (!services.empty())
        {
            oem::Value target =
                dbus.getProperty(services.begin()->first, path, fanPwmInterface,
                                 "Target", oem::dbusTimeout);
            if (index < reportedFans)
            {
                info[1 + index] =
                    static_cast<uint8_t>(std::get<uint64_t>(target) & 0xFF);
            }
        }
        ++index;
    }

    memcpy(response, info, sizeof(info));
    *data_len = sizeof(info);
    return IPMI_CC_OK;
}

ipmi_ret_t ipmi_vel_oem_get_fan_pid_info(ipmi_netfn_t, ipmi_cmd_t cmd,
                                         ipmi_request_t request,
                                         ipmi_response_t response,
                                         ipmi_data_len_t data_len,
                                         ipmi_context_t)
{
    uint32_t length = *data_len;
    FILE* file = openParamFile(cmd);
    if (file == nullptr)
    {
        return paramFailure(response, data_len, IPMI_CC_UNSPECIFIED_ERROR);
    }
    FanParams params{};
    FanParamResult result = oem::thermal::readFanParams(
        file, requestByte(request, length, 0), params);
    fclose(file);
    switch (result)
    {
        case FanParamResult::found:
            memcpy(response, params.data(), params.size());
            *data_len = params.size();
            return IPMI_CC_OK;
        case FanParamResult::notFound:
            reportUnknownSensor(request, length);
            // Not 0xFF: the tools tell a wrong ID from a missing file.
            return paramFailure(response, data_len, 0x01);
        case FanParamResult::badWidth:
        case FanParamResult::ioError:
            break;
    }
    fprintf(stderr, "cmd(0x%x):read %s failed!\n", cmd,
            oem::thermal::fanParamPath);
    return paramFailure(response, data_len, IPMI_CC_UNSPECIFIED_ERROR);
}

ipmi_ret_t ipmi_vel_oem_set_fan_pid_info(ipmi_netfn_t, ipmi_cmd_t cmd,
                                         ipmi_request_t request,
                                         ipmi_response_t response,
                                         ipmi_data_len_t data_len,
                                         ipmi_context_t)
{
    uint32_t length = *data_len;
    FanParams params{};
    // Parameters the request does not carry must not be written as zeros.
    if (length < params.size())
    {
        *data_len = 0;
        return IPMI_CC_REQ_DATA_LEN_INVALID;
    }
    memcpy(params.data(), request, params.size());
    FILE* file = openParamFile(cmd);
    if (file == nullptr)
    {
        return paramFailure(response, data_len, IPMI_CC_UNSPECIFIED_ERROR);
    }
    FanParamResult result = oem::thermal::writeFanParams(file, params);
    bool closed = fclose(file) == 0;
    if (result == FanParamResult::found && !closed)
    {
        result = FanParamResult::ioError;
    }
    switch (result)
    {
        case FanParamResult::found:
            memcpy(response, params.data(), params.size());
            *data_len = params.size();
            return IPMI_CC_OK;
        case FanParamResult::notFound:
            reportUnknownSensor(request, length);
            break;
        case FanParamResult::badWidth:
            fprintf(stderr,
                    "cmd(0x%x):line of sensorID 0x%02X is not 0xNN:0xNN:0xNN:"
                    "0xNN:0xNN:0xNN, not rewritten!\n",
                    cmd, params[0]);
            break;
        case FanParamResult::ioError:
            fprintf(stderr, "cmd(0x%x):write %s failed!\n", cmd,
                    oem::thermal::fanParamPath);
            break;
    }
    return paramFailure(response, data_len, IPMI_CC_UNSPECIFIED_ERROR);
}
