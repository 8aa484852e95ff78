// SPDX-License-Identifier: Apache-2.0
// The system UUID, which the host sets and reads and the BMC keeps in its
// EEPROM, and the BMC's own UUID from the image. The system UUID is kept in
// the byte order of the text that set it: no field is swapped either way.

#include "bios/uuid.hpp"

#include "globals.hpp"
#include "inventory/tables.hpp"
#include "oem/wire.hpp"
#include "utils.hpp"

#include <cstdio>
#include <cstring>

using oem::wire::reply;

namespace
{

constexpr size_t uuidTextLength = 32;
constexpr size_t bmcUuidTextLength = 36;

FILE* openEeprom()
{
    FILE* file = fopen(eeprom_path.c_str(), "rb+");
    if (file == nullptr)
    {
        fprintf(stderr, " %s file cannot open \n", eeprom_path.c_str());
    }
    return file;
}

} // namespace

int eeprom_read_uuid(uint8_t* uuid)
{
    FILE* file = openEeprom();
    if (file == nullptr)
    {
        return -1;
    }
    bool ok = fseek(file, EEPROM_UUID_OFFSET, SEEK_SET) == 0 &&
              fread(uuid, EEPROM_UUID_SIZE, 1, file) == 1;
    fclose(file);
    return ok ? 0 : -1;
}

int eeprom_write_uuid(uint8_t* uuid, int length)
{
    FILE* file = openEeprom();
    if (file == nullptr)
    {
        return -1;
    }
    // Erased first; a failed write then reads back as zeros, not as a mix
    // of two UUIDs.
    const uint8_t erased[EEPROM_UUID_SIZE] = {};
    bool ok = fseek(file, EEPROM_UUID_OFFSET, SEEK_SET) == 0;
    if (ok)
    {
        fwrite(erased, sizeof(erased), 1, file);
        ok = fseek(file, EEPROM_UUID_OFFSET, SEEK_SET) == 0 &&
             fwrite(uuid, EEPROM_UUID_SIZE, 1, file) == 1 && fflush(file) == 0;
    }
    ok = (fclose(file) == 0) && ok;
    return ok ? 0 : -1;
}

int check_uuid(uint8_t* uuid)
{
    // Every value is accepted for now.
    return 0;
}

ipmi_ret_t ipmi_vel_oem_get_system_uuid(OEM_HANDLER_PARAMS)
{
    uint8_t uuid[EEPROM_UUID_SIZE] = {};
    if (eeprom_read_uuid(uuid) == -1 || check_uuid(uuid) == -1)
    {
        return reply(response, data_len, {0x01});
    }
    memcpy(response, uuid, sizeof(uuid));
    *data_len = sizeof(uuid);
    return IPMI_CC_OK;
}

ipmi_ret_t ipmi_vel_oem_set_system_uuid(OEM_HANDLER_PARAMS)
{
    // The UUID comes as NUL-terminated text; the length byte of the
    // daemon's request is not trusted, only the low byte of the text
    // length is tested.
    std::string text = oem::wire::requestText(request, *data_len);
    if (text.size() % 256 != uuidTextLength)
    {
        return reply(response, data_len, {0x01});
    }
    char uuid[EEPROM_UUID_SIZE] = {};
    asc2hex(text.c_str(), uuidTextLength, uuid);
    if (eeprom_write_uuid(reinterpret_cast<uint8_t*>(uuid), sizeof(uuid)) == -1)
    {
        return reply(response, data_len, {0x01});
    }
    return reply(response, data_len, {0x00});
}

ipmi_ret_t ipmi_vel_oem_get_bmc_uuid(OEM_HANDLER_PARAMS)
{
    char command[] = "cat /etc/bmc-uuid 2>&1";
    char output[256] = {};
    system_ctrl(command, output, sizeof(output));
    if (strstr(output, "No such file or directory") != nullptr)
    {
        reply(response, data_len, {0x01});
        return 0x01;
    }
    // The canonical text form; its hyphens carry nothing.
    char digits[bmcUuidTextLength + 1] = {};
    size_t count = 0;
    for (size_t i = 0; i < bmcUuidTextLength && output[i] != '\0'; ++i)
    {
        if (output[i] != '-')
        {
            digits[count++] = output[i];
        }
    }
    unsigned char bytes[bmcUuidTextLength] = {};
    StringToHex(digits, bytes);
    memcpy(response, bytes, EEPROM_UUID_SIZE);
    *data_len = EEPROM_UUID_SIZE;
    return IPMI_CC_OK;
}
