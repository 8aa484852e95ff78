// SPDX-License-Identifier: Apache-2.0
// What the BMC knows about the installed firmware and hardware: the one-line
// version report, the riser cards, and the block of data that the host
// leaves in shared memory for the BMC to page out. These answer in their
// first data byte; the completion code stays 0x00.

#include "bios/report.hpp"

#include "bios/cpld.hpp"
#include "hw/hwmon.hpp"
#include "hw/i2c.hpp"
#include "oem/utils.hpp"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>
#include <string>

namespace
{

constexpr int riserBus = 10;
constexpr int riserAddress = 0x23;
constexpr uint8_t riserRegister = 0x39;

constexpr const char* memDevice = "/dev/mem";
constexpr const char* exportCopy = "/var/vga-exp";

constexpr uint8_t moreFollows = 0xFE;
constexpr uint8_t beyondTheEnd = 0xFF;

// The version text as the report formats it, NUL included.
constexpr size_t versionTextSize = 100;

constexpr uint8_t versionReport = 1;
constexpr uint8_t expanderVersions = 2;

ipmi_ret_t answer(ipmi_response_t response, ipmi_data_len_t dataLen,
                  uint8_t status)
{
    static_cast<uint8_t*>(response)[0] = status;
    *dataLen = 1;
    return IPMI_CC_OK;
}

ipmi_ret_t failed(ipmi_response_t response, ipmi_data_len_t dataLen)
{
    return answer(response, dataLen, 0x01);
}

// Device memory: byte reads only.
void copyArea(const volatile uint8_t* area, uint8_t* copy)
{
    for (size_t i = 0; i < oem::bios::exportAreaSize; ++i)
    {
        copy[i] = readb(area + i);
    }
}

// Whether the memory file can back the whole area. /dev/mem is a character
// device on the BMC; a regular file standing in for it must reach past the
// area, or reading the mapping would fault.
bool canBackArea(int fd)
{
    struct stat st;
    if (fstat(fd, &st) != 0)
    {
        return false;
    }
    return !S_ISREG(st.st_mode) ||
           static_cast<uint64_t>(st.st_size) >=
               oem::bios::exportAreaAddress + oem::bios::exportAreaSize;
}

// Replaces the BMC's copy of the export data through a temporary file, so
// that a failed refresh leaves the previous copy whole.
bool replaceExportCopy(const uint8_t* data, size_t length)
{
    std::string tmpPath = std::string(exportCopy) + "_tmp";
    FILE* file = fopen(tmpPath.c_str(), "w+");
    if (file == nullptr)
    {
        printf(" %s file cannot open \n", exportCopy);
        return false;
    }
    bool ok = fwrite(data, 1, length, file) == length;
    ok = fclose(file) == 0 && ok;
    if (!ok || rename(tmpPath.c_str(), exportCopy) != 0)
    {
        fprintf(stderr, "%s cannot be written\n", exportCopy);
        unlink(tmpPath.c_str());
        return false;
    }
    return true;
}

// Page 0: copies the area, checks that the host has finished writing it,
// keeps its data in the export copy and answers the first page.
ipmi_ret_t refreshExport(ipmi_response_t response, ipmi_data_len_t dataLen)
{
    using namespace oem::bios;

    int fd = open(memDevice, O_RDWR | O_SYNC);
    if (fd < 0)
    {
        return failed(response, dataLen);
    }
    void* mapped =
        canBackArea(fd)
            ? mmap(nullptr, exportAreaSize, PROT_READ | PROT_WRITE, MAP_SHARED,
                   fd, static_cast<off_t>(exportAreaAddress))
            : MAP_FAILED;
    if (mapped == MAP_FAILED)
    {
        // Leaves the response and its length as they came: the host tools
        // of this BMC expect exactly that.
        fprintf(stderr, "can't map flash  via /dev/mem\n");
        close(fd);
        return IPMI_CC_OK;
    }
    auto unmap = [&] {
        munmap(mapped, exportAreaSize);
        close(fd);
    };
    std::unique_ptr<uint8_t[]> copy(new (std::nothrow) uint8_t[exportAreaSize]);
    if (!copy)
    {
        unmap();
        return failed(response, dataLen);
    }
    const auto* area = static_cast<const volatile uint8_t*>(mapped);
    copyArea(area, copy.get());
    ExportState state = exportState(copy.get());
    if (state == ExportState::writing)
    {
        // The host is still writing: one more look shortly after.
        usleep(10);
        copyArea(area, copy.get());
        state = exportState(copy.get());
    }
    unmap();
    if (state != ExportState::ready)
    {
        return failed(response, dataLen);
    }

    const uint8_t* header = copy.get();
    unsigned announced = (unsigned{header[12]} << 24) |
                         (unsigned{header[13]} << 16) |
                         (unsigned{header[14]} << 8) | header[15];
    fprintf(stderr, "VGA_datalen : 0x%x ", announced);
    size_t length = exportLength(copy.get());
    const uint8_t* data = copy.get() + exportHeaderSize;
    if (!replaceExportCopy(data, length))
    {
        return failed(response, dataLen);
    }

    auto* out = static_cast<uint8_t*>(response);
    size_t count = std::min(length, explorerPageSize);
    out[0] = 0x00;
    out[1] = length <= explorerPageSize ? 0x00 : moreFollows;
    memcpy(out + 2, data, count);
    *dataLen = static_cast<uint32_t>(count + 2);
    return IPMI_CC_OK;
}

// A later page, from the copy the last page 0 left.
ipmi_ret_t exportPage(uint8_t page, ipmi_response_t response,
                      ipmi_data_len_t dataLen)
{
    using oem::bios::explorerPageSize;

    FILE* file = fopen(exportCopy, "rb");
    if (file == nullptr)
    {
        printf(" %s file cannot open \n", exportCopy);
        return failed(response, dataLen);
    }
    struct stat st;
    if (fstat(fileno(file), &st) != 0 || !S_ISREG(st.st_mode))
    {
        fclose(file);
        return failed(response, dataLen);
    }
    auto size = static_cast<size_t>(st.st_size);
    size_t offset = explorerPageSize * page;
    auto* out = static_cast<uint8_t*>(response);
    out[0] = 0x00;
    if (offset >= size)
    {
        fclose(file);
        out[1] = beyondTheEnd;
        *dataLen = 2;
        return IPMI_CC_OK;
    }
    size_t rest = size - offset;
    out[1] = rest <= explorerPageSize ? page : moreFollows;
    size_t got = 0;
    if (fseek(file, static_cast<long>(offset), SEEK_SET) == 0)
    {
        got = fread(out + 2, 1, std::min(rest, explorerPageSize), file);
    }
    fclose(file);
    *dataLen = static_cast<uint32_t>(got + 2);
    return IPMI_CC_OK;
}

} // namespace

namespace oem::bios
{

uint8_t riserPresence(uint8_t reg)
{
    // Active low: a riser is there when any of its lines reads 0.
    uint8_t riser2 = (reg & 0x70) != 0x70 ? 2 : 0;
    uint8_t riser1 = (reg & 0x0F) != 0x0F ? 1 : 0;
    return riser2 + riser1;
}

ExportState exportState(const uint8_t* area)
{
    const uint8_t* magic = area + 8;
    if (memcmp(magic, "orv\x40", 4) == 0)
    {
        return ExportState::ready;
    }
    if (memcmp(magic, "star", 4) == 0)
    {
        return ExportState::writing;
    }
    return ExportState::none;
}

size_t exportLength(const uint8_t* area)
{
    size_t announced = (size_t{area[12]} << 24) | (size_t{area[13]} << 16) |
                       (size_t{area[14]} << 8) | area[15];
    return std::min(announced, exportAreaSize - exportHeaderSize);
}

} // namespace oem::bios

int RISER_detect(uint8_t* value)
{
    return i2c_read(riserBus, riserAddress, riserRegister, value);
}

ipmi_ret_t ipmi_vel_oem_get_sw_hw_version(OEM_HANDLER_PARAMS)
{
    // An empty request selects nothing: answered as an unknown selector.
    uint8_t selector =
        *data_len > 0 ? static_cast<const uint8_t*>(request)[0] : 0;
    if (selector == expanderVersions)
    {
        fprintf(stderr, "Expander Versions\r\n");
        return answer(response, data_len, 0x01);
    }
    if (selector != versionReport)
    {
        fprintf(stderr, "unsupport command\r\n");
        return answer(response, data_len, 0x02);
    }

    char bmc[40] = {};
    char bios[32] = {};
    read_fw_ver("/etc/os-release", bmc, 4, 12, 32);
    read_fw_ver("/etc/bios-release", bios, 1, 12, 25);

    char text[versionTextSize];
    uint8_t cpld = 0;
    cpld_version_read(&cpld);
    if (cpld != 0)
    {
        // The "00" is part of how this report has always shown the CPLD.
        snprintf(text, sizeof(text), "BMC: %s BIOS: %s CPLD: 00%d\n", bmc, bios,
                 cpld);
    }
    else
    {
        char fallback[5] = {};
        read_fw_ver("/run/cpld1.version", fallback, 1, 12, 4);
        snprintf(text, sizeof(text), "BMC: %s BIOS: %s CPLD: %s\n", bmc, bios,
                 fallback);
    }
    fprintf(stderr, "ipmi_vel_oem_get_sw_hw_version \xEF\xBC\x9A %s\n", text);

    size_t length = strlen(text);
    memcpy(response, text, length);
    *data_len = static_cast<uint32_t>(length);
    return IPMI_CC_OK;
}

ipmi_ret_t ipmi_vel_oem_get_explorer(OEM_HANDLER_PARAMS)
{
    // Without a page number there is nothing to fetch, and no reason to
    // replace the export copy.
    if (*data_len == 0)
    {
        return failed(response, data_len);
    }
    uint8_t page = static_cast<const uint8_t*>(request)[0];
    if (page == 0)
    {
        return refreshExport(response, data_len);
    }
    return exportPage(page, response, data_len);
}

ipmi_ret_t ipmi_vel_oem_get_riser_info(OEM_HANDLER_PARAMS)
{
    uint8_t value = 0;
    if (RISER_detect(&value) != 0)
    {
        return failed(response, data_len);
    }
    auto* out = static_cast<uint8_t*>(response);
    out[0] = 0x00;
    out[1] = oem::bios::riserPresence(value);
    *data_len = 2;
    return IPMI_CC_OK;
}
