// SPDX-License-Identifier: Apache-2.0
// Paging through the web side's power and login audit logs, one record per
// request. The plug-in only reads the logs.

#include "health/audit.hpp"

#include <cstdio>
#include <cstring>

extern "C" int logLineSplit(char* line, char** fields)
{
    int count = 0;
    char* save = nullptr;
    for (char* field = strtok_r(line, " ", &save);
         field != nullptr && count < AUDIT_LOG_FIELDS;
         field = strtok_r(nullptr, " ", &save))
    {
        fields[count++] = field;
    }
    return count;
}

namespace oem
{

std::string auditRecordText(int number, char* line)
{
    char* fields[AUDIT_LOG_FIELDS] = {};
    logLineSplit(line, fields);
    auto field = [&fields](int i) -> const char* {
        return fields[i] != nullptr ? fields[i] : "";
    };
    // Field 6 carries a key and separator ("user:") that the tools do not
    // want; a shorter field has nothing after it.
    const char* user = field(6);
    user += strnlen(user, 5);

    std::string text = std::to_string(number) + "|" + field(0) + " " +
                       field(1) + "|" + field(5) + "|" + user + "|";
    for (int i = 7; i < AUDIT_LOG_FIELDS && fields[i] != nullptr; ++i)
    {
        text += fields[i];
        text += ' ';
    }
    text += '\n';
    return text;
}

void readAuditRecord(bool power, uint8_t record, uint8_t* answer,
                     uint32_t* count)
{
    const char* path = power ? POWER_AUDIT_LOG : LOGIN_AUDIT_LOG;
    *count = 0;
    FILE* file = fopen(path, "r");
    if (file == nullptr)
    {
        fprintf(stderr, "file %s open error\r\n", path);
        answer[0] = AUDIT_NO_RECORD;
        return;
    }
    char piece[AUDIT_RECORD_PIECE];
    bool found = false;
    while (fgets(piece, sizeof(piece), file) != nullptr)
    {
        ++*count;
        if (record != 0 && *count == record)
        {
            found = true;
            break;
        }
    }
    fclose(file);
    if (record == 0)
    {
        return;
    }
    if (!found)
    {
        fprintf(stderr, "Record Index Selector Out of range\r\n");
        answer[0] = AUDIT_NO_RECORD;
        return;
    }
    std::string text = auditRecordText(record, piece);
    fprintf(stderr, "preadDataBuf: %s\n", text.c_str());
    // Long records are cut to the answer; the terminating zero goes with
    // them.
    size_t size = text.size() + 1 < AUDIT_ANSWER_SIZE ? text.size() + 1
                                                      : AUDIT_ANSWER_SIZE;
    memcpy(answer, text.c_str(), size);
}

} // namespace oem

ipmi_ret_t ipmi_vel_oem_get_audit_log(OEM_HANDLER_PARAMS)
{
    const auto* in = static_cast<const uint8_t*>(request);
    auto* out = static_cast<uint8_t*>(response);
    if (*data_len != 2)
    {
        fprintf(stderr, "Invalid data_len\n ");
        *data_len = 0;
        return IPMI_CC_REQ_DATA_LEN_INVALID;
    }
    uint8_t type = in[0];
    uint8_t index = in[1];
    if (type != 1 && type != 2)
    {
        fprintf(stderr, "Error Record Type Selector\n");
        *data_len = 0;
        return IPMI_CC_PARM_OUT_OF_RANGE;
    }
    bool power = type == 1;
    uint32_t count = 0;
    uint8_t answer[AUDIT_ANSWER_SIZE] = {};
    if (index == 0)
    {
        oem::readAuditRecord(power, 0, answer, &count);
        // One byte: a log of more than 255 records wraps.
        out[0] = static_cast<uint8_t>(count & 0xFF);
        *data_len = 1;
        return IPMI_CC_OK;
    }
    if (index > AUDIT_MAX_INDEX)
    {
        fputs(power ? "Error Power Record Index Selector\n"
                    : "Error Login Record Index Selector\n",
              stderr);
        *data_len = 0;
        return IPMI_CC_PARM_OUT_OF_RANGE;
    }
    oem::readAuditRecord(power, index, answer, &count);
    if (answer[0] == AUDIT_NO_RECORD || index > count)
    {
        *data_len = 0;
        return IPMI_CC_PARM_OUT_OF_RANGE;
    }
    memcpy(out, answer, sizeof(answer));
    *data_len = sizeof(answer);
    return IPMI_CC_OK;
}
