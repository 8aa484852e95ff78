// SPDX-License-Identifier: Apache-2.0
// BIOS setup options, kept as key=value tokens in text files that the host
// BIOS picks up at its next start. Set rewrites the working copy; get reads
// the copy handed on to the BIOS, which set refreshes only on request, so
// that a batch of changes reaches the BIOS at once.

#include "bios/options.hpp"

#include "oem/utils.hpp"
#include "oem/wire.hpp"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <vector>

namespace
{

constexpr const char* workingFile = "/etc/default/obmc/current_bios_configure";
constexpr const char* futureFile = "/etc/default/obmc/future_bios_configure";
constexpr const char* optionModule = "BIOS";

struct Token
{
    size_t valueStart;
    size_t valueEnd;
};

std::optional<Token> findToken(const std::string& line,
                               const std::string& module,
                               const std::string& key)
{
    if (line.find(module) == std::string::npos)
    {
        return std::nullopt;
    }
    std::string token = key + "=";
    size_t at = line.find(token);
    if (at == std::string::npos)
    {
        return std::nullopt;
    }
    size_t start = at + token.size();
    size_t end = line.find(' ', start);
    return Token{start, end == std::string::npos ? line.size() : end};
}

bool writeAll(FILE* file, const std::string& text)
{
    return fwrite(text.data(), 1, text.size(), file) == text.size();
}

// The "_tmp" copy a rewrite that matched nothing leaves beside the file: a
// scratch copy, not state, so it is written in place.
void leaveCopy(const std::string& path, const std::string& text)
{
    if (FILE* file = fopen(path.c_str(), "w"); file != nullptr)
    {
        writeAll(file, text);
        fclose(file);
    }
}

} // namespace

namespace oem::bios
{

const std::array<const char*, optionCount> optionKeys = {
    "Language",
    "COM0ConsoleRedirection",
    "COM1ConsoleRedirection",
    "SriovSupport",
    "Svm_mode",
    "Above4gDecode",
    "UsbMassDriverSupport",
    "WakeSystemFromRTC",
    "PlatfromFirstErrorHandle",
    "SMBIOSEventLog",
    "LogSystemBootEvent",
    "CorePerformanceBoost",
    "GlobalCstateControl",
    "L1StreamHWPrefetcher",
    "L2StreamHWPrefetcher",
    "IOMMU",
    "ACSEnable",
    "FRB2Timer",
    "OSWatchdogTimer",
    "SELComponents",
};

std::optional<std::string> optionLineValue(const std::string& line,
                                           const std::string& module,
                                           const std::string& key)
{
    auto token = findToken(line, module, key);
    if (!token)
    {
        return std::nullopt;
    }
    return line.substr(token->valueStart, token->valueEnd - token->valueStart);
}

std::optional<std::string> replaceOptionValue(const std::string& line,
                                              const std::string& module,
                                              const std::string& key,
                                              const std::string& value)
{
    auto token = findToken(line, module, key);
    if (!token)
    {
        return std::nullopt;
    }
    return line.substr(0, token->valueStart) + value +
           line.substr(token->valueEnd);
}

uint8_t optionByte(const std::string& text)
{
    return static_cast<uint8_t>(oem::strtol32(text.c_str(), nullptr, 10));
}

std::array<std::string, optionCount>
    optionTexts(const std::array<uint8_t, optionCount + 1>& request)
{
    std::array<std::string, optionCount> texts;
    // A byte other than 0, 1 or 2 keeps the text of the option before it.
    std::string value;
    for (size_t i = 0; i < texts.size(); ++i)
    {
        uint8_t setting = request[i + 1];
        // COM0ConsoleRedirection tests the Language byte for 2: the BIOS
        // side has always sent them together.
        uint8_t two = i == 1 ? request[1] : setting;
        if (setting == 0)
        {
            value = "0";
        }
        else if (setting == 1)
        {
            value = "1";
        }
        else if (two == 2)
        {
            value = "2";
        }
        texts[i] = value;
    }
    return texts;
}

} // namespace oem::bios

int getBiosModuleArgValue(std::string path, const std::string& module,
                          const std::string& key, std::string& value)
{
    std::ifstream in(path);
    std::string line;
    while (in && std::getline(in, line))
    {
        if (auto found = oem::bios::optionLineValue(line, module, key))
        {
            value = *found;
            return 0;
        }
    }
    return 1;
}

void setBiosModuleArgValue(std::string path, std::string& module,
                           std::string key, std::string& value)
{
    std::string tmpPath = path + "_tmp";
    std::ifstream in(path);
    FILE* out = fopen(tmpPath.c_str(), "w");
    if (!in.is_open() || out == nullptr)
    {
        if (out != nullptr)
        {
            fclose(out);
        }
        return;
    }

    bool changed = false;
    bool ok = true;
    std::string line;
    while (ok && std::getline(in, line))
    {
        if (auto replaced =
                oem::bios::replaceOptionValue(line, module, key, value))
        {
            line = *replaced;
            changed = true;
        }
        ok = writeAll(out, line + "\n");
    }
    // A read error would make the copy a cut version of the file.
    ok = ok && !in.bad();
    if (changed)
    {
        // The BIOS must find either the old file or the new one, whole,
        // after a power loss.
        ok = ok && fflush(out) == 0 && fsync(fileno(out)) == 0;
    }
    ok = (fclose(out) == 0) && ok;
    if (!ok)
    {
        unlink(tmpPath.c_str());
        return;
    }
    // With no match the copy stays beside the file, to be overwritten by
    // the next call.
    if (changed && rename(tmpPath.c_str(), path.c_str()) != 0)
    {
        unlink(tmpPath.c_str());
    }
}

ipmi_ret_t ipmi_vel_oem_get_bios_configure(OEM_HANDLER_PARAMS)
{
    auto* out = static_cast<uint8_t*>(response);
    std::string module = optionModule;
    for (size_t i = 0; i < oem::bios::optionKeys.size(); ++i)
    {
        std::string value;
        out[i] = getBiosModuleArgValue(futureFile, module,
                                       oem::bios::optionKeys[i], value) == 0
                     ? oem::bios::optionByte(value)
                     : 0;
    }
    *data_len = oem::bios::optionCount;
    return IPMI_CC_OK;
}

ipmi_ret_t ipmi_vel_oem_set_bios_configure(OEM_HANDLER_PARAMS)
{
    // Always 21 bytes; a short request counts as zero-filled, as the
    // daemon's request buffer is.
    std::array<uint8_t, oem::bios::optionCount + 1> settings;
    oem::wire::requestBytes(request, *data_len, settings.data(),
                            settings.size());
    auto texts = oem::bios::optionTexts(settings);
    std::string tmpPath = std::string(workingFile) + "_tmp";

    // The twenty options are applied one after the other, as twenty
    // rewrites of the file through its "_tmp" copy would apply them, but
    // the file is written once: a failure or a reset half-way must not
    // leave some options old and the rest new.
    std::string original;
    switch (oem::readFile(workingFile, original))
    {
        case oem::ReadResult::failed:
            // Nothing is known of the file, so nothing is written.
            return oem::wire::reply(response, data_len, {0x00});
        case oem::ReadResult::missing:
            // Each rewrite would have left an empty copy behind.
            leaveCopy(tmpPath, "");
            break;
        case oem::ReadResult::ok:
        {
            std::vector<std::string> lines;
            std::istringstream in(original);
            for (std::string line; std::getline(in, line);)
            {
                lines.push_back(line);
            }
            std::string module = optionModule;
            bool changed = false;
            bool lastChanged = false;
            for (size_t i = 0; i < texts.size(); ++i)
            {
                lastChanged = false;
                for (auto& line : lines)
                {
                    if (auto replaced = oem::bios::replaceOptionValue(
                            line, module, oem::bios::optionKeys[i], texts[i]))
                    {
                        line = *replaced;
                        lastChanged = true;
                    }
                }
                changed = changed || lastChanged;
            }
            std::string content;
            for (const auto& line : lines)
            {
                content += line + "\n";
            }
            if (changed && oem::replaceFile(workingFile, content) !=
                               oem::WriteResult::done)
            {
                return oem::wire::reply(response, data_len, {0x00});
            }
            // A last rewrite that matched nothing left its copy beside the
            // file, to be overwritten by the next one.
            if (!lastChanged)
            {
                leaveCopy(tmpPath, content);
            }
            break;
        }
    }
    if (settings[0] == 1)
    {
        // The copy handed on to the BIOS, replaced whole like the working
        // file; a working file that cannot be read leaves it as it is.
        std::string working;
        if (oem::readFile(workingFile, working) == oem::ReadResult::ok)
        {
            oem::replaceFile(futureFile, working);
        }
    }
    return oem::wire::reply(response, data_len, {0x00});
}
