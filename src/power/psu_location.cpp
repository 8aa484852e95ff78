// SPDX-License-Identifier: Apache-2.0
#include "psu_location.hpp"

#include "hw/i2c.hpp"
#include "oem/utils.hpp"

#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>

std::vector<std::string> psu_split_m7r(const std::string& text,
                                       const std::string& delimiter)
{
    std::vector<std::string> pieces;
    if (text.empty())
    {
        return pieces;
    }
    if (delimiter.empty())
    {
        // Nothing to split on; the whole text is one piece.
        pieces.push_back(text);
        return pieces;
    }
    std::string padded = text + delimiter;
    size_t position = 0;
    while (position < padded.size())
    {
        size_t found = padded.find(delimiter, position);
        if (found == std::string::npos)
        {
            ++position;
            continue;
        }
        pieces.push_back(padded.substr(position, found - position));
        position = found + delimiter.size();
    }
    return pieces;
}

namespace
{

std::string locationLookup(const char* path, const char* key)
{
    if (path == nullptr)
    {
        return {};
    }
    std::ifstream file(path);
    std::string line;
    while (std::getline(file, line))
    {
        if (line.find(key) == std::string::npos)
        {
            continue;
        }
        auto pieces = psu_split_m7r(line, "=");
        return pieces.size() > 1 ? pieces[1] : std::string();
    }
    return {};
}

} // namespace

std::string get_Psu_Bus_m7r(const char* path)
{
    return locationLookup(path, "I2CBUS");
}

std::string get_Psu_Addr_m7r(const char* path)
{
    return locationLookup(path, "I2CADDR");
}

// The daemon's own splitter is not available to every host of the plug-in;
// both pairs share one lookup, which splits exactly as it does.
std::string getPsuBus(const char* path)
{
    return locationLookup(path, "I2CBUS");
}

std::string getPsuAddr(const char* path)
{
    return locationLookup(path, "I2CADDR");
}

namespace oem
{

int linear11(uint8_t low, uint8_t high)
{
    int word = low + 256 * high;
    int exponent = word >> 11;
    if (exponent > 15)
    {
        exponent -= 32;
    }
    int mantissa = word & 0x7FF;
    return exponent < 0 ? mantissa >> -exponent : mantissa << exponent;
}

uint8_t locationValue(const std::string& text)
{
    return static_cast<uint8_t>(oem::strtol32(text.c_str(), nullptr, 10));
}

} // namespace oem

extern "C" int m7r_find_psu_i2cbus_and_addr(const char* path, uint8_t* bus,
                                            uint8_t* addr)
{
    FILE* file = fopen(path, "r");
    if (file == nullptr)
    {
        fprintf(stderr, "[%s:%d] Failed to open %s\n\n", __func__, __LINE__,
                path);
        return -1;
    }
    char line[128];
    while (true)
    {
        memset(line, 0, sizeof(line));
        if (fgets(line, sizeof(line), file) == nullptr)
        {
            break;
        }
        uint8_t* target = nullptr;
        if (strstr(line, "I2CBUS") != nullptr)
        {
            target = bus;
        }
        else if (strstr(line, "I2CADDR") != nullptr)
        {
            target = addr;
        }
        if (target == nullptr)
        {
            continue;
        }
        char* save = nullptr;
        strtok_r(line, "=", &save);
        const char* value = strtok_r(nullptr, "=", &save);
        if (value != nullptr)
        {
            *target = static_cast<uint8_t>(oem::strtol32(value, nullptr, 10));
        }
    }
    fclose(file);
    return 0;
}

extern "C" int m7r_read_psu_i2cbus_and_addr(uint8_t bus, uint8_t addr)
{
    constexpr int attempts = 5;
    constexpr useconds_t retryDelayUs = 5000;
    uint8_t word[2] = {};
    bool answered = false;
    for (int attempt = 0; attempt < attempts; ++attempt)
    {
        if (attempt > 0)
        {
            usleep(retryDelayUs);
        }
        if (i2c_read_buffer(bus, addr, PMBUS_READ_VIN, word, sizeof(word)) >= 0)
        {
            answered = true;
            break;
        }
    }
    if (!answered)
    {
        return -1;
    }
    int volts = oem::linear11(word[0], word[1]);
    fprintf(stderr, "[%s:%d] value=0x%x,%d\n\n", __func__, __LINE__, volts,
            volts);
    // Below 80 V the supply runs on its hold-up energy: its input is gone.
    return volts < 80 ? -2 : 0;
}
