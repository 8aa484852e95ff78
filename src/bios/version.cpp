// SPDX-License-Identifier: Apache-2.0
// The BIOS version and the one-shot BIOS reset flag. The BIOS reports its
// version early at every start; that report is also its signal that it will
// report its inventory afresh, so the stored inventory is cleared first.
// Failures are answered in the first data byte, never in the completion
// code.

#include "bios/version.hpp"

#include "inventory/eeprom.hpp"
#include "oem/utils.hpp"
#include "oem/wire.hpp"

#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

using oem::wire::reply;
using oem::wire::requestByte;

namespace
{

constexpr const char* resetFlagFile = "/etc/bios_reset_flag";
constexpr const char* versionFile = "/etc/default/obmc/bios-version";
constexpr const char* releaseFile = "/etc/bios-release";
constexpr const char* dimmSizeFile = "/etc/all_dimm_size";
constexpr const char* daemonStateDir = "/var/ipmi";

// Layout of the long form of a set version request.
constexpr uint32_t shortFormMax = 32;
constexpr size_t textField = 32;
constexpr size_t flagAt = 32;
constexpr size_t numbersAt = 36;
constexpr size_t secondTextAt = 40;
constexpr size_t moreNumbersAt = 72;
constexpr size_t thirdTextAt = 76;

// Replaces a file whole (see oem::replaceFile) and reports the close on
// standard output as the version tools expect.
bool replaceFile(const std::string& path, const std::string& content)
{
    bool closed = false;
    auto result = oem::replaceFile(path, content, &closed);
    if (result != oem::WriteResult::notOpened)
    {
        fputs(closed ? "file is now closed " : "file cannot be closed ",
              stdout);
    }
    return result == oem::WriteResult::done;
}

void runShell(const char* command)
{
    [[maybe_unused]] int status = system(command);
}

} // namespace

namespace oem::bios
{

std::string requestedVersion(const uint8_t* request, uint32_t length)
{
    auto at = [&](size_t i) -> uint32_t {
        return requestByte(request, length, i);
    };
    // A NUL-terminated text that ends at the latest with its field.
    auto text = [&](size_t from, size_t size) {
        std::string s;
        for (size_t i = from; i < from + size && i < length && request[i] != 0;
             ++i)
        {
            s += static_cast<char>(request[i]);
        }
        return s;
    };
    auto number = [&](size_t i) { return at(i) | (at(i + 1) << 8); };

    std::string version;
    // Only the low byte of the length tells the forms apart.
    if ((length & 0xFF) <= shortFormMax)
    {
        version = text(0, textField);
    }
    else
    {
        uint32_t flag = at(flagAt) | (at(flagAt + 1) << 8) |
                        (at(flagAt + 2) << 16) | (at(flagAt + 3) << 24);
        if (flag != 1)
        {
            return {};
        }
        char composed[maxVersionLength + 1];
        snprintf(composed, sizeof(composed), "%s.FT.%u.%u.%s.%u.%u.%s",
                 text(0, textField).c_str(), number(numbersAt),
                 number(numbersAt + 2), text(secondTextAt, textField).c_str(),
                 number(moreNumbersAt), number(moreNumbersAt + 2),
                 text(thirdTextAt, maxVersionLength).c_str());
        version = composed;
    }
    version.resize(std::min(version.size(), maxVersionLength));
    return version;
}

bool recordableVersion(const std::string& version)
{
    // One line, and a double-quoted value that needs no escapes.
    return std::none_of(version.begin(), version.end(), [](char ch) {
        auto c = static_cast<unsigned char>(ch);
        return c < 0x20 || c == 0x7F || strchr("\"\\`$", c) != nullptr;
    });
}

} // namespace oem::bios

int BIOS_reset(bool reset)
{
    return oem::replaceFile(resetFlagFile, reset ? "reset" : "noreset") ==
                   oem::WriteResult::done
               ? 0
               : -1;
}

int get_BIOS_reset(void)
{
    FILE* file = fopen(resetFlagFile, "r");
    if (file == nullptr)
    {
        return 0;
    }
    char line[128] = {};
    bool got = fgets(line, sizeof(line), file) != nullptr;
    fclose(file);
    if (!got || strncmp(line, "reset", 5) != 0)
    {
        return 0;
    }
    // Consumed by the first reader; if it cannot be cleared it stays set
    // for the next one.
    return oem::replaceFile(resetFlagFile, "noreset") == oem::WriteResult::done
               ? 1
               : 0;
}

ipmi_ret_t ipmi_vel_oem_bios_set_version(OEM_HANDLER_PARAMS)
{
    std::string version = oem::bios::requestedVersion(
        static_cast<const uint8_t*>(request), *data_len);
    // Checked before anything is cleared: a refused report loses nothing.
    if (!oem::bios::recordableVersion(version))
    {
        fprintf(stderr, "BIOS version refused: control or quote characters\n");
        return reply(response, data_len, {0x01});
    }

    eeprom_bios_data_clean();
    runShell("/usr/sbin/clean_fruid.sh ");
    char command[63];
    snprintf(command, sizeof(command), "rm -r  %s &&  /usr/sbin/clean_fruid.sh",
             daemonStateDir);
    runShell(command);

    FILE* sizes = fopen(dimmSizeFile, "w");
    if (sizes == nullptr)
    {
        return reply(response, data_len, {0x01});
    }
    fclose(sizes);

    std::string release = "VERSION_ID=\"" + version + "\"";
    if (!replaceFile(versionFile, version + "\n") ||
        !replaceFile(releaseFile, release + "\n"))
    {
        return reply(response, data_len, {0x01});
    }
    // A version the inventory does not hold is not recorded: the BIOS
    // sends it again.
    if (eeprom_store_data(BIOS_DATA_WRITE, BIOS_DATA_TYPE_BIOS, 0,
                          release.data(),
                          static_cast<int>(release.size())) != 0)
    {
        return reply(response, data_len, {0x01});
    }
    runShell("systemctl restart org.open_power.Software.Host.Updater.service");
    return reply(response, data_len, {0x00});
}

ipmi_ret_t ipmi_vel_oem_bios_get_version(OEM_HANDLER_PARAMS)
{
    FILE* file = fopen(versionFile, "r");
    if (file == nullptr)
    {
        printf("file cannot open ");
        return reply(response, data_len, {0x01});
    }
    // The longest version set version records, and its line end.
    std::string line;
    int ch = 0;
    while (line.size() < oem::bios::maxVersionLength + 1 &&
           (ch = getc(file)) != EOF)
    {
        line += static_cast<char>(ch);
        if (ch == '\n')
        {
            break;
        }
    }
    if (line.empty())
    {
        printf("read failed.");
        fclose(file);
        return reply(response, data_len, {0x30});
    }
    printf("read file first line.");
    fputs(fclose(file) == 0 ? "file is now closed " : "file cannot be closed ",
          stdout);

    // The last character goes whether or not it is the line end.
    line.pop_back();
    auto* out = static_cast<uint8_t*>(response);
    out[0] = 0x00;
    memcpy(out + 1, line.data(), line.size());
    *data_len = static_cast<uint32_t>(line.size() + 1);
    return IPMI_CC_OK;
}

ipmi_ret_t ipmi_vel_oem_get_bios_reset(OEM_HANDLER_PARAMS)
{
    return reply(response, data_len,
                 {0x00, static_cast<uint8_t>(get_BIOS_reset() == 1)});
}
