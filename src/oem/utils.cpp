// SPDX-License-Identifier: Apache-2.0
// Shell, file and text utilities shared by the handlers.

#include "utils.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

int system_ctrl(char* command, char* output, int size)
{
    FILE* stream = popen(command, "r");
    if (stream == nullptr)
    {
        return -1;
    }
    if (output != nullptr && size > 0 && fgets(output, size, stream) != nullptr)
    {
        size_t len = strlen(output);
        if (len > 0 && output[len - 1] == '\n')
        {
            output[len - 1] = '\0';
        }
    }
    pclose(stream);
    return 0;
}

namespace
{
// '0'..'9' and 'A'..'F'/'a'..'f' as usual; the six characters after '9'
// (':' ';' '<' '=' '>' '?') also read as 10..15, because some of our host
// tools emit them for A..F. Anything else reads as 0.
constexpr std::array<uint8_t, 256> makeHexTable()
{
    std::array<uint8_t, 256> table{};
    for (int c = '0'; c <= '?'; ++c)
    {
        table[c] = static_cast<uint8_t>(c - '0');
    }
    for (int c = 0; c < 6; ++c)
    {
        table['A' + c] = static_cast<uint8_t>(10 + c);
        table['a' + c] = static_cast<uint8_t>(10 + c);
    }
    return table;
}
constexpr auto hexValue = makeHexTable();

// StringToHex's digit rule: ':'..'f' map through ch - 0x37, anything else
// through ch - 0x30. Computed modulo 256 like the byte it ends up in.
uint8_t digitValue(char ch)
{
    auto c = static_cast<unsigned char>(ch);
    return static_cast<uint8_t>(c >= 0x3A && c <= 0x66 ? c - 0x37 : c - 0x30);
}
} // namespace

void asc2hex(const char* text, int length, char* out)
{
    if (length < 2)
    {
        return;
    }
    for (int i = 0; i < length / 2; ++i)
    {
        auto high = hexValue[static_cast<unsigned char>(text[2 * i])];
        auto low = hexValue[static_cast<unsigned char>(text[2 * i + 1])];
        out[i] = static_cast<char>((high << 4) | low);
    }
}

int StringToHex(char* text, unsigned char* out)
{
    size_t len = strlen(text);
    for (size_t i = 0; i < len / 2; ++i)
    {
        uint8_t high = digitValue(text[2 * i]);
        uint8_t low = digitValue(text[2 * i + 1]);
        out[i] =
            static_cast<unsigned char>(((high << 4) & 0xFF) | (low & 0x0F));
    }
    if (len % 2 != 0)
    {
        out[len / 2] = digitValue(text[len - 1]);
    }
    return 0;
}

uint8_t readb(const volatile void* address)
{
    return *static_cast<const volatile uint8_t*>(address);
}

void writeb(uint8_t value, volatile void* address)
{
    *static_cast<volatile uint8_t*>(address) = value;
}

int reset_bmc(int delay_ms)
{
    if (delay_ms > 0)
    {
        usleep(static_cast<useconds_t>(delay_ms) * 1000);
    }
    fprintf(stderr, "reset_bmc succeed\n");
    [[maybe_unused]] int status = system("reboot");
    return 0;
}

namespace oem
{

ipmi_ret_t shellStatus(int status)
{
    if (status == -1)
    {
        fprintf(stderr, "execute system cmd error\n");
        return IPMI_CC_UNSPECIFIED_ERROR;
    }
    if ((status & 0x7F) != 0)
    {
        // Killed by a signal; the printed value is the fixed 0.
        fprintf(stderr, "exit code: %d\n", 0);
        return IPMI_CC_UNSPECIFIED_ERROR;
    }
    if (status != 0)
    {
        // Non-zero exit; the printed value is the fixed 1.
        fprintf(stderr, "run shell fail,exit code: %d\n", 1);
        return IPMI_CC_UNSPECIFIED_ERROR;
    }
    fprintf(stderr, "run shell success\n");
    return IPMI_CC_OK;
}

namespace
{

bool writeAll(int fd, std::string_view bytes)
{
    while (!bytes.empty())
    {
        ssize_t n = write(fd, bytes.data(), bytes.size());
        if (n < 0 && errno == EINTR)
        {
            continue;
        }
        if (n <= 0)
        {
            return false;
        }
        bytes.remove_prefix(static_cast<size_t>(n));
    }
    return true;
}

// Makes a rename in dir survive a power loss; a failure here leaves the
// new file in place, so it is not reported.
void syncDirectory(const std::string& path)
{
    auto slash = path.rfind('/');
    std::string dir = slash == std::string::npos ? "."
                      : slash == 0               ? "/"
                                                 : path.substr(0, slash);
    int fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd >= 0)
    {
        fsync(fd);
        close(fd);
    }
}

} // namespace

WriteResult replaceFile(const std::string& path, std::string_view content,
                        bool* closed)
{
    std::string temporary = path + "_tmp";
    int fd =
        open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0666);
    if (fd < 0)
    {
        if (closed != nullptr)
        {
            *closed = false;
        }
        return WriteResult::notOpened;
    }
    struct stat old;
    bool ok =
        stat(path.c_str(), &old) != 0 || fchmod(fd, old.st_mode & 07777) == 0;
    ok = ok && writeAll(fd, content) && fsync(fd) == 0;
    bool closedCleanly = close(fd) == 0;
    if (closed != nullptr)
    {
        *closed = closedCleanly;
    }
    ok = ok && closedCleanly && rename(temporary.c_str(), path.c_str()) == 0;
    if (!ok)
    {
        unlink(temporary.c_str());
        return WriteResult::notWritten;
    }
    syncDirectory(path);
    return WriteResult::done;
}

ReadResult readFile(const std::string& path, std::string& content)
{
    content.clear();
    int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (fd < 0)
    {
        return errno == ENOENT ? ReadResult::missing : ReadResult::failed;
    }
    char buffer[4096];
    ReadResult result = ReadResult::ok;
    for (;;)
    {
        ssize_t n = read(fd, buffer, sizeof(buffer));
        if (n < 0 && errno == EINTR)
        {
            continue;
        }
        if (n < 0)
        {
            result = ReadResult::failed;
            break;
        }
        if (n == 0)
        {
            break;
        }
        content.append(buffer, static_cast<size_t>(n));
    }
    close(fd);
    return result;
}

int32_t strtol32(const char* text, char** end, int base)
{
    long long value = strtoll(text, end, base);
    return static_cast<int32_t>(
        std::clamp<long long>(value, INT32_MIN, INT32_MAX));
}

uint32_t strtoul32(const char* text, char** end, int base)
{
    long long value = strtoll(text, end, base);
    if (value > UINT32_MAX || value < -static_cast<long long>(UINT32_MAX))
    {
        return UINT32_MAX;
    }
    return static_cast<uint32_t>(value);
}

} // namespace oem
