// SPDX-License-Identifier: Apache-2.0
// The EEPROM inventory store: the host BIOS deposits one 128-byte tagged
// record per device at every boot, and they survive BMC reboots there.

#include "inventory/eeprom.hpp"

#include "globals.hpp"

#include <sys/stat.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <vector>

namespace
{

const char* recordTag(BIOS_DATA_TYPE type)
{
    switch (type)
    {
        case BIOS_DATA_TYPE_BIOS:
            return "BIOS";
        case BIOS_DATA_TYPE_CPU:
            return "CPUs";
        case BIOS_DATA_TYPE_PCI:
            return "PCIs";
        case BIOS_DATA_TYPE_NIC:
            return "NICs";
        case BIOS_DATA_TYPE_HDD:
            return "HDDs";
        case BIOS_DATA_TYPE_DIMM:
            return "DIMs";
    }
    return "NONO";
}

long long recordOffset(int record)
{
    return EEPROM_RECORD_BASE + static_cast<long long>(EEPROM_RECORD_SIZE) *
                                    static_cast<long long>(record);
}

long long fileSize(FILE* file)
{
    struct stat status = {};
    if (fstat(fileno(file), &status) != 0)
    {
        return 0;
    }
    return status.st_size;
}

void reportTooSmall(long long offset)
{
    fprintf(stderr,
            " %s The file is too small, the storage address is 0x%llx\n",
            eeprom_path.c_str(), static_cast<unsigned long long>(offset));
}

} // namespace

int eeprom_store_data(BIOS_DATA_FLAGS flags, BIOS_DATA_TYPE type, int record,
                      char* data, int length)
{
    bool write = flags == BIOS_DATA_WRITE;
    if (write && data == nullptr)
    {
        return -1;
    }
    if (record < 0 || length < 0)
    {
        fprintf(stderr, " %s no record %d of length %d\n", eeprom_path.c_str(),
                record, length);
        return -1;
    }
    const char* path = eeprom_path.c_str();
    FILE* file = fopen(path, "rb+");
    if (file == nullptr)
    {
        fprintf(stderr, " %s file cannot open \n", path);
        return -1;
    }

    long long offset = recordOffset(record);
    long long size = fileSize(file);
    std::vector<char> bytes;
    if (write)
    {
        // A write must fit whole: a cut record would read back as another.
        if (offset + length >= size || offset + EEPROM_RECORD_SIZE > size)
        {
            fprintf(stderr,
                    " %s The file is too small, the storage address is 0x%llx, "
                    "and the required write length is %d.\n",
                    path, static_cast<unsigned long long>(offset), length);
            fclose(file);
            return -1;
        }
        bytes.assign(EEPROM_RECORD_SIZE, 0);
        memcpy(bytes.data(), recordTag(type), EEPROM_RECORD_TAG_SIZE);
        memcpy(bytes.data() + EEPROM_RECORD_TAG_SIZE, data,
               static_cast<size_t>(std::min(length, EEPROM_RECORD_PAYLOAD)));
    }
    else
    {
        if (offset >= size)
        {
            reportTooSmall(offset);
            fclose(file);
            return -1;
        }
        long long span = flags == BIOS_DATA_CLEAN_ALL
                             ? EEPROM_RECORD_SIZE * EEPROM_RECORD_COUNT
                         : flags == BIOS_DATA_CLEAN_ONE ? EEPROM_RECORD_SIZE
                                                        : 0;
        // Clearing what lies past the end would only grow the file.
        bytes.assign(static_cast<size_t>(std::min(span, size - offset)), 0);
    }

    bool ok = true;
    if (!bytes.empty())
    {
        ok = fseeko(file, static_cast<off_t>(offset), SEEK_SET) == 0 &&
             fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size() &&
             fflush(file) == 0;
    }
    ok = (fclose(file) == 0) && ok;
    if (!ok)
    {
        fprintf(stderr, " %s write failed at 0x%llx\n", path,
                static_cast<unsigned long long>(offset));
        return -1;
    }
    return 0;
}

int get_eeprom_store_data(int record, char* out, int length)
{
    if (out == nullptr || record < 0 || length < 0)
    {
        return -1;
    }
    const char* path = eeprom_path.c_str();
    FILE* file = fopen(path, "rb");
    if (file == nullptr)
    {
        fprintf(stderr, " %s file cannot open \n", path);
        return -1;
    }
    long long offset = recordOffset(record);
    if (offset >= fileSize(file))
    {
        reportTooSmall(offset);
        fclose(file);
        return -1;
    }
    char bytes[EEPROM_RECORD_SIZE] = {};
    if (fseeko(file, static_cast<off_t>(offset), SEEK_SET) == 0)
    {
        // A short read leaves the rest of the record zero.
        [[maybe_unused]] size_t got = fread(bytes, 1, sizeof(bytes), file);
    }
    fclose(file);
    memcpy(out, bytes + EEPROM_RECORD_TAG_SIZE,
           static_cast<size_t>(std::min(length, EEPROM_RECORD_PAYLOAD)));
    return 0;
}

int eeprom_bios_data_clean(void)
{
    eeprom_store_data(BIOS_DATA_CLEAN_ALL, static_cast<BIOS_DATA_TYPE>(0), 0,
                      nullptr, 0);
    return 0;
}
