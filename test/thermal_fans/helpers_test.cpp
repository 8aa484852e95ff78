// SPDX-License-Identifier: Apache-2.0
// The exported fan readers, for other modules: no command reads a PWM file
// back or shows the mode reader's result.

#include "plugin.hpp"

#include <unistd.h>

namespace
{

TEST(FanHelpers, PwmValueFromTheFirstThreeCharacters)
{
    auto readPwm = pluginSymbol<int (*)(int, uint8_t*)>("fan_get_pwmfile");
    const struct
    {
        int channel;
        const char* contents;
        int result;
        uint8_t value;
    } cases[] = {
        {8, "255\n", 0, 255},
        {1, "1000\n", 0, 100},
        {2, "x\n", 0, 0},
        {7, nullptr, -1, 0xEE}, // the board has no channel 7
    };
    for (const auto& c : cases)
    {
        std::string path =
            "/sys/class/hwmon/hwmon0/pwm" + std::to_string(c.channel);
        std::string saved = readFile(path);
        if (c.contents != nullptr)
        {
            writeFile(path, c.contents);
        }
        uint8_t value = 0xEE;
        EXPECT_EQ(readPwm(c.channel, &value), c.result) << c.channel;
        EXPECT_EQ(value, c.value) << c.channel;
        if (c.contents != nullptr)
        {
            writeFile(path, saved);
        }
    }
}

TEST(FanHelpers, ModeIsAutomaticUntilTheServiceWritesIt)
{
    auto readMode = pluginSymbol<int (*)(uint8_t*)>("fan_get_fan_mode");
    const std::string saved = readFile("/var/log/fan_mode");
    uint8_t mode = 0xEE;
    writeFile("/var/log/fan_mode", "manual\n");
    EXPECT_EQ(readMode(&mode), 0);
    EXPECT_EQ(mode, 0);
    unlink("/var/log/fan_mode");
    EXPECT_EQ(readMode(&mode), -1);
    EXPECT_EQ(mode, 1);
    writeFile("/var/log/fan_mode", saved);
}

} // namespace
