// SPDX-License-Identifier: Apache-2.0
// CPLD versions and the CPLD update. The main-board CPLD is read over I2C;
// the disk-backplane CPLDs are read by other services, which publish their
// versions under /run. An update takes minutes, far longer than an IPMI
// request may, so it runs on a worker thread of its own and the command
// answers at once.

#include "bios/cpld.hpp"

#include "hw/i2c.hpp"
#include "oem/wire.hpp"

#include <pthread.h>

#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

namespace
{

constexpr int cpldBus = 10;
constexpr int cpldAddress = 0x23;
constexpr uint8_t cpldVersionRegister = 0x02;

// A version file's first word is a few dozen characters; anything longer
// cannot be a version and is cut.
constexpr size_t maxVersionWord = 255;

constexpr const char* workerName = "cpld-update";
constexpr uint8_t updateM7R = 0x01;
constexpr uint8_t updateOther = 0x02;

// Built per request: the backplane population is fixed, and the bounds
// checks go by these lists.
std::vector<std::vector<std::string>> backplaneCplds()
{
    return {
        {"Front_HDD_Backplane0_CPLD", "Front_HDD_Backplane1_CPLD",
         "Front_HDD_Backplane2_CPLD", "Front_HDD_Backplane3_CPLD"},
        {"Rear_HDD_Backplane0_CPLD", "Rear_HDD_Backplane1_CPLD"},
    };
}

// A decimal number as scanf's %d takes it (optional sign, at least one
// digit), kept as its low four bits in two's complement: all that the
// version byte keeps of it. Advances pos past it; false if there is none.
bool lowNibbleOfNumber(std::string_view text, size_t& pos, uint8_t& nibble)
{
    bool negative = false;
    if (pos < text.size() && (text[pos] == '+' || text[pos] == '-'))
    {
        negative = text[pos] == '-';
        ++pos;
    }
    size_t first = pos;
    unsigned value = 0;
    while (pos < text.size() && isdigit(static_cast<unsigned char>(text[pos])))
    {
        value = (value * 10 + static_cast<unsigned>(text[pos] - '0')) & 0x0F;
        ++pos;
    }
    if (pos == first)
    {
        return false;
    }
    nibble = static_cast<uint8_t>((negative ? 16 - value : value) & 0x0F);
    return true;
}

// One whitespace-delimited word, at most maxVersionWord characters of it.
std::string firstWord(FILE* file)
{
    int ch;
    while ((ch = getc(file)) != EOF && isspace(ch))
    {}
    std::string word;
    while (ch != EOF && !isspace(ch))
    {
        if (word.size() < maxVersionWord)
        {
            word += static_cast<char>(ch);
        }
        ch = getc(file);
    }
    return word;
}

void runShell(const char* command)
{
    // Neither tool reports anything we could act on: the update's outcome
    // shows in the CPLD version afterwards.
    [[maybe_unused]] int status = system(command);
}

// Owns its copy of the request; shares nothing with the daemon's thread.
void updateWorker(std::string request)
{
    // Named so that a running update shows in ps and top.
    pthread_setname_np(pthread_self(), workerName);
    runShell("get_cpld_update.exe");
    // Lets the preparation tool's image settle before it is programmed.
    std::this_thread::sleep_for(std::chrono::seconds(5));
    uint8_t platform = request.empty() ? 0 : static_cast<uint8_t>(request[0]);
    if (platform == updateM7R)
    {
        fprintf(stderr, "oem update cpld process for M7R[0x%x].\n", platform);
        runShell("cpld_mem_up.sh /var/cpld_upfile");
    }
    else if (platform == updateOther)
    {
        // That platform has no update step of its own yet.
        fprintf(stderr, "oem update cpld process for XXX[0x%x].\n", platform);
    }
}

} // namespace

namespace oem::bios
{

std::optional<std::string> backplaneCpldName(uint8_t group, uint8_t position)
{
    auto groups = backplaneCplds();
    if (group >= groups.size() || position >= groups[group].size())
    {
        return std::nullopt;
    }
    return groups[group][position];
}

uint8_t backplaneVersionByte(std::string_view word)
{
    constexpr std::string_view prefix = "VERSION_ID=\"v";
    if (word.substr(0, prefix.size()) != prefix)
    {
        return 0x00;
    }
    size_t pos = prefix.size();
    uint8_t major = 0;
    uint8_t minor = 0;
    if (!lowNibbleOfNumber(word, pos, major) || pos >= word.size() ||
        word[pos] != '.' || !lowNibbleOfNumber(word, ++pos, minor))
    {
        return 0x00;
    }
    return static_cast<uint8_t>((major << 4) | minor);
}

} // namespace oem::bios

int cpld_version_read(uint8_t* version)
{
    return i2c_read(cpldBus, cpldAddress, cpldVersionRegister, version);
}

ipmi_ret_t ipmi_vel_oem_cpld_get_version(OEM_HANDLER_PARAMS)
{
    auto* out = static_cast<uint8_t*>(response);
    const auto* in = static_cast<const uint8_t*>(request);
    if (*data_len == 0)
    {
        uint8_t version = 0;
        if (cpld_version_read(&version) != 0)
        {
            fprintf(stderr, "cpld  version  fail!\n");
            *data_len = 0;
            return IPMI_CC_UNSPECIFIED_ERROR;
        }
        out[0] = version;
        *data_len = 1;
        return IPMI_CC_OK;
    }
    if (*data_len != 2)
    {
        *data_len = 0;
        return IPMI_CC_UNSPECIFIED_ERROR;
    }

    auto name = oem::bios::backplaneCpldName(in[0], in[1]);
    if (!name)
    {
        *data_len = 0;
        return IPMI_CC_UNSPECIFIED_ERROR;
    }
    std::string path = "/run/" + *name + ".version";
    FILE* file = fopen(path.c_str(), "r");
    if (file == nullptr)
    {
        *data_len = 0;
        return IPMI_CC_UNSPECIFIED_ERROR;
    }
    std::string word = firstWord(file);
    fclose(file);
    out[0] = oem::bios::backplaneVersionByte(word);
    *data_len = 1;
    return IPMI_CC_OK;
}

ipmi_ret_t ipmi_vel_oem_get_cpld_update(OEM_HANDLER_PARAMS)
{
    // The request is a text; it ends at its first zero byte, and at the
    // latest with the request.
    std::string copy = oem::wire::requestText(request, *data_len);
    try
    {
        std::thread(updateWorker, std::move(copy)).detach();
    }
    catch (const std::system_error& e)
    {
        fprintf(stderr, "oem update cpld: cannot start the worker: %s\n",
                e.what());
        *data_len = 0;
        return IPMI_CC_UNSPECIFIED_ERROR;
    }
    static_cast<uint8_t*>(response)[0] = 0x00;
    *data_len = 1;
    return IPMI_CC_OK;
}
