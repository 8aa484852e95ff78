// SPDX-License-Identifier: Apache-2.0
// A host BIOS start as the BMC sees it: the version report that starts a
// fresh inventory, the device reports, the setup options and the system
// UUID, and management software reading all of it back.

#include "sandbox_files.hpp"

#include <filesystem>

namespace
{

using namespace bios_test;
using Bytes = std::vector<uint8_t>;

Bytes withHeader(const Bytes& payload, size_t size)
{
    Bytes answer(payload);
    answer.resize(size, 0);
    answer.insert(answer.begin(), {0x00, 0x01});
    return answer;
}

Bytes dimm(uint8_t number, const std::string& size)
{
    Bytes r(size.begin(), size.end());
    r.insert(r.begin(), {number, 'D', 'D', 'R', '4', 0, 0, 0, 0, 0, 0});
    r.resize(40, 0);
    return r;
}

TEST(BiosBoot, ReportsInventoryOptionsAndUuidEndToEnd)
{
    // A BMC that has seen an earlier boot.
    blankEeprom();
    putBytes(eepromFile, 0x1000 + 128 * 3, bytesOf("CPUsstale cpu 2"));
    writeFile("/etc/all_dimm_size", "65536\n");
    writeFile("/etc/default/obmc/bios-version", "0.9\n");
    writeFile("/var/ipmi/nicDev.list00:01", "00:01--02:00:0,8086,1533,00;\n");
    std::string options = "[BIOS]\nBIOS Language=0 COM0ConsoleRedirection=1 "
                          "IOMMU=0 SELComponents=1\n";
    writeFile("/etc/default/obmc/current_bios_configure", options);
    writeFile("/etc/default/obmc/future_bios_configure", options);
    standIn("/usr/sbin/clean_fruid.sh");
    standIn("/usr/sbin/up_pci_frulist.sh");
    standIn("/bin/systemctl");
    clearCommandLog();

    testing::internal::CaptureStdout();
    Bytes version = bytesOf("1.07.20240501");
    version.push_back(0);
    EXPECT_EQ(call(0x3A, 0x20, version).data, Bytes{0x00});
    EXPECT_EQ(call(0x3A, 0x21).data,
              bytesOf(std::string("\0", 1) + "1.07.20240501"));
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(readFile("/etc/bios-release"), "VERSION_ID=\"1.07.20240501\"\n");
    EXPECT_FALSE(std::filesystem::exists("/var/ipmi"));

    // The stale CPU is gone; two CPUs, two DIMMs, a PCI device, a NIC and
    // a disk are reported.
    EXPECT_EQ(call(0x3A, 0x02, {2}).data, withHeader({}, 71));
    Bytes cpu0 = {0, 'E', 'P', 'Y', 'C', ' ', '7', '5', '4', '3'};
    Bytes cpu1 = {1, 'E', 'P', 'Y', 'C', ' ', '7', '5', '4', '3'};
    EXPECT_EQ(call(0x3A, 0x01, cpu0).data, Bytes{0x00});
    EXPECT_EQ(call(0x3A, 0x01, cpu1).data, Bytes{0x00});
    EXPECT_EQ(call(0x3A, 0x03, dimm(0, "32768")).data, Bytes{0x00});
    EXPECT_EQ(call(0x3A, 0x03, dimm(1, "32768")).data, Bytes{0x00});
    Bytes pci = {0x00, 0x03, 0x10, 0xDE, 0x20, 0xB5, 1, 2, 3};
    EXPECT_EQ(call(0x3A, 0x09, pci).data, Bytes{0x00});
    Bytes nic = {0x00, 0x04, 0x41, 0x00, 0x00, 0x15, 0xB3, 0x10, 0x17, 0,
                 0,    0,    0,    0xB8, 0xCE, 0xF6, 0x01, 0x02, 0x03};
    EXPECT_EQ(call(0x3A, 0x27, nic).data, Bytes{0x00});
    Bytes disk = {0, 2, 'S', 'A', 'M', 'S', 'U', 'N', 'G'};
    EXPECT_EQ(call(0x3A, 0x16, disk).data, Bytes{0x00});

    EXPECT_EQ(call(0x3A, 0x02, {0}).data, withHeader(cpu0, 71));
    EXPECT_EQ(call(0x3A, 0x02, {1}).data, withHeader(cpu1, 71));
    EXPECT_EQ(call(0x3A, 0x04, {1}).data, withHeader(dimm(1, "32768"), 55));
    EXPECT_EQ(call(0x3A, 0x0A, {0x00, 0x03}).data, withHeader(pci, 16));
    EXPECT_EQ(call(0x3A, 0x28, {0x00, 0x04}).data, withHeader(nic, 40));
    EXPECT_EQ(call(0x3A, 0x17, {0}).data, withHeader(disk, 72));
    testing::internal::CaptureStderr();
    EXPECT_EQ(call(0x3A, 0x83).data, bytesOf("65536"));
    testing::internal::GetCapturedStderr();
    EXPECT_EQ(readFile("/var/ipmi/nicDev.list00:04"),
              "00:04--41:00:0,15b3,1017,00;\n");
    EXPECT_EQ(readFile("/var/ipmi/nic00:04"), "\xB8\xCE\xF6\x01\x02\x03");

    // Setup options: a change is handed on only with the copy flag.
    Bytes set = {0, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 2, 0, 0, 0, 1};
    EXPECT_EQ(call(0x3A, 0x72, set).data, Bytes{0x00});
    Bytes before(20, 0);
    before[1] = 1;
    before[19] = 1;
    EXPECT_EQ(call(0x3A, 0x71).data, before);
    set[0] = 1;
    EXPECT_EQ(call(0x3A, 0x72, set).data, Bytes{0x00});
    Bytes after(20, 0);
    after[0] = 1;
    after[15] = 2;
    after[19] = 1;
    EXPECT_EQ(call(0x3A, 0x71).data, after);

    // The system UUID.
    Bytes uuid = bytesOf("4C4C4544004A5A10804BB2C04F564E32");
    uuid.push_back(0);
    EXPECT_EQ(call(0x3A, 0x50, uuid).data, Bytes{0x00});
    EXPECT_EQ(call(0x3A, 0x49).data,
              (Bytes{0x4C, 0x4C, 0x45, 0x44, 0x00, 0x4A, 0x5A, 0x10, 0x80, 0x4B,
                     0xB2, 0xC0, 0x4F, 0x56, 0x4E, 0x32}));

    // What the BMC ran, in order.
    EXPECT_EQ(loggedCommands(),
              "clean_fruid.sh \n"
              "clean_fruid.sh \n"
              "systemctl restart org.open_power.Software.Host.Updater.service\n"
              "up_pci_frulist.sh cpu /usr/bin/eeprom 0 1\n"
              "up_pci_frulist.sh cpu /usr/bin/eeprom 1 2\n"
              "up_pci_frulist.sh dim /usr/bin/eeprom 0 31\n"
              "up_pci_frulist.sh dim /usr/bin/eeprom 1 32\n"
              "up_pci_frulist.sh pci /usr/bin/eeprom 3 5\n"
              "up_pci_frulist.sh nic /usr/bin/eeprom 4 6\n"
              "up_pci_frulist.sh hdd /usr/bin/eeprom 0 15\n");

    // A later boot with the same BIOS clears the inventory again.
    testing::internal::CaptureStdout();
    EXPECT_EQ(call(0x3A, 0x20, version).data, Bytes{0x00});
    testing::internal::GetCapturedStdout();
    EXPECT_EQ(call(0x3A, 0x02, {0}).data, withHeader({}, 71));
    EXPECT_EQ(call(0x3A, 0x49).data[0], 0x4C);
    EXPECT_EQ(readFile("/etc/all_dimm_size"), "");
}

} // namespace
