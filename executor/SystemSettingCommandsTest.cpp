// Power management, kernel values, firmware variables and the MTU checks through the executor,
// each layer pointed at a temporary tree standing in for the host.

#include <gtest/gtest.h>
#include <linux/fs.h>

#include <climits>

#include "foundation/Sha256.h"
#include "platform/FirmwareVariables.h"
#include "tests/support/SettingsTestSupport.h"

namespace krv {
namespace {

using test::expectResult;
using test::integerAt;
using test::number;
using test::text;

constexpr const char* kStore = "var/lib/com.tavorin.system.securityagent3/PowerManagement.plist";
constexpr const char* kVariables = "sys/firmware/efi/efivars";

class PowerCommandTest : public test::SettingsCommandTest {
 protected:
  void supply(const std::string& name, const std::map<std::string, std::string>& attributes) {
    for (const auto& [attribute, value] : attributes) {
      file("sys/class/power_supply/" + name + "/" + attribute, value + "\n");
    }
  }
  // A laptop on its battery, its charger unplugged.
  void laptopOnBattery() {
    supply("AC", {{"type", "Mains"}, {"online", "0"}});
    supply("BAT0", {{"type", "Battery"}, {"present", "1"}, {"status", "Discharging"}});
  }
  Dictionary store() const { return plistAt(kStore); }
};

TEST_F(PowerCommandTest, OptionChangesBothSourcesAndTheSpindownOnlyTheSourceInUse) {
  laptopOnBattery();
  CommandResult result = run(18, {text("Wake On LAN"), number(7)});
  expectCode(result, 0);
  EXPECT_EQ(test::textOf(*result, "UnderlyingErrorCode"), "0");
  Dictionary stored = store();
  for (const char* source : {"AC Power", "Battery Power"}) {
    EXPECT_EQ(integerAt(stored, {"PowerManagementPreferences", source, "Wake On LAN"}), 7);
    EXPECT_EQ(integerAt(stored, {"ActivePowerProfiles", source}), -1);
  }

  expectCode(run(19, {number(25)}), 0);
  stored = store();
  EXPECT_EQ(integerAt(stored, {"PowerManagementPreferences", "Battery Power", "Disk Sleep Timer"}),
            25);
  EXPECT_EQ(integerAt(stored, {"PowerManagementPreferences", "AC Power", "Disk Sleep Timer"}), 10);

  // Plugged in: AC power provides, whatever the battery does.
  file("sys/class/power_supply/AC/online", "1\n");
  expectCode(run(19, {number(3)}), 0);
  EXPECT_EQ(integerAt(store(), {"PowerManagementPreferences", "AC Power", "Disk Sleep Timer"}), 3);
}

TEST_F(PowerCommandTest, ADesktopHasNoBatterySourceAndDeviceBatteriesAreNotTheMachines) {
  supply("ACAD", {{"type", "Mains"}, {"online", "1"}});
  supply("hid-mouse", {{"type", "Battery"}, {"scope", "Device"}, {"status", "Discharging"}});
  expectCode(run(18, {text("System Sleep Timer"), number(0)}), 0);
  const Dictionary stored = store();
  EXPECT_EQ(integerAt(stored, {"PowerManagementPreferences", "AC Power", "System Sleep Timer"}), 0);
  EXPECT_EQ(test::valueAt(stored, {"ActivePowerProfiles", "Battery Power"}), nullptr);
  EXPECT_EQ(test::valueAt(stored, {"PowerManagementPreferences", "Battery Power"}), nullptr);
}

TEST_F(PowerCommandTest, AnUnknownKeyIsNeverAddedButTheProfileStaysCustom) {
  laptopOnBattery();
  expectCode(run(18, {text(""), number(1)}), 3);
  CommandResult result = run(18, {text("Nope"), number(1)});
  expectCode(result, 12);
  EXPECT_TRUE(result->userInfo().empty());
  const Dictionary stored = store();
  EXPECT_EQ(integerAt(stored, {"ActivePowerProfiles", "Battery Power"}), -1);
  // Battery failed first: AC power was not touched.
  EXPECT_EQ(integerAt(stored, {"ActivePowerProfiles", "AC Power"}), 2);
  EXPECT_EQ(test::valueAt(stored, {"PowerManagementPreferences", "Battery Power", "Nope"}),
            nullptr);
}

TEST_F(PowerCommandTest, SpindownAddsTheTimerWhenTheSourceLacksIt) {
  supply("AC", {{"type", "Mains"}, {"online", "1"}});
  file(kStore,
       "{ ActivePowerProfiles = { \"AC Power\" = 2; }; "
       "PowerManagementPreferences = { \"AC Power\" = { \"Wake On LAN\" = 1; }; }; }");
  expectCode(run(19, {number(42)}), 0);
  EXPECT_EQ(integerAt(store(), {"PowerManagementPreferences", "AC Power", "Disk Sleep Timer"}), 42);
  // The option command, unlike it, adds nothing.
  expectCode(run(18, {text("Display Sleep Timer"), number(1)}), 12);
}

TEST_F(PowerCommandTest, AStoreThatCannotBeReadOrWrittenFails) {
  laptopOnBattery();
  const std::string broken = "not { a store";
  file(kStore, broken);
  expectCode(run(18, {text("Wake On LAN"), number(0)}), 12);
  expectCode(run(19, {number(1)}), 12);
  EXPECT_EQ(contentsOf(kStore), broken);

  // Readable but not replaceable: activating the profiles fails.
  ASSERT_TRUE(test::setKernelFlags(path(kStore), 0));
  file(kStore, "{ ActivePowerProfiles = {}; PowerManagementPreferences = {}; }");
  ASSERT_TRUE(test::setKernelFlags(path(kStore), FS_IMMUTABLE_FL));
  expectCode(run(19, {number(1)}), 12);
}

class KernelValueTest : public test::SettingsCommandTest {};

TEST_F(KernelValueTest, WritesTheValueAsDecimalTextBelowProcSys) {
  file("proc/sys/net/ipv4/ip_forward", "0\n");
  expectCode(run(20, {text("net.ipv4.ip_forward"), number(1)}), 0);
  EXPECT_EQ(contentsOf("proc/sys/net/ipv4/ip_forward"), "1\n");
  expectCode(run(20, {text("net/ipv4/ip_forward"), number(LLONG_MIN)}), 0);
  EXPECT_EQ(contentsOf("proc/sys/net/ipv4/ip_forward"), "-9223372036854775808\n");
}

TEST_F(KernelValueTest, NamesThatNameNoSettingAreRefused) {
  file("proc/sys/kernel/value", "0\n");
  folders("outside");
  m_tree.makeLink("proc/sys/link", path("outside"));
  m_tree.makeFile("outside/value", "0\n");
  m_tree.makeLink("proc/sys/kernel/alias", path("outside/value"));
  expectCode(run(20, {text(""), number(1)}), 3);
  for (const char* name : {"kernel..value", ".kernel.value", "kernel.value.",
                           "kernel/../kernel/value", "missing.value"}) {
    expectPosix(run(20, {text(name), number(1)}), ENOENT);
  }
  expectPosix(run(20, {text(std::string("kernel.val\0ue", 13)), number(1)}), ENOENT);
  expectPosix(run(20, {text("kernel"), number(1)}), EISDIR);
  // No link is followed, not even one of root's.
  expectPosix(run(20, {text("link.value"), number(1)}), ENOTDIR);
  expectPosix(run(20, {text("kernel.alias"), number(1)}), ELOOP);
  EXPECT_EQ(contentsOf("outside/value"), "0\n");
  EXPECT_EQ(contentsOf("proc/sys/kernel/value"), "0\n");
}

class FirmwareVariableTest : public test::SettingsCommandTest {
 protected:
  FirmwareVariableTest() { folders(kVariables); }
  static std::string fileOf(const std::string& name) {
    return std::string(kVariables) + "/" + name + "-7c436110-ab2a-4bbb-a880-fe41995c9f82";
  }
  std::string variable(const std::string& name) const { return contentsOf(fileOf(name)); }
  // A variable the firmware wrote, immutable as the kernel marks it.
  void firmwareVariable(const std::string& name, const std::string& value) {
    file(fileOf(name), std::string("\x07\0\0\0", 4) + value);
    ASSERT_TRUE(test::setKernelFlags(path(fileOf(name)), FS_IMMUTABLE_FL));
  }
  static std::string withAttributes(const std::string& value) {
    return std::string("\x07\0\0\0", 4) + value;
  }
};

TEST_F(FirmwareVariableTest, NewVariablesAreDataInPercentHexFormAndStringsOtherwise) {
  expectCode(run(21, {text("boot-data"), text("%01%ff")}), 0);
  EXPECT_EQ(variable("boot-data"), withAttributes("\x01\xff"));
  expectCode(run(21, {text("boot-text"), text("abc")}), 0);
  EXPECT_EQ(variable("boot-text"), withAttributes("abc"));
  // Each keeps its type: the text one takes any text, the data one only percent-hex.
  expectCode(run(21, {text("boot-text"), text("%41")}), 0);
  EXPECT_EQ(variable("boot-text"), withAttributes("%41"));
  expectCode(run(21, {text("boot-data"), text("xyz")}), 3);
  expectCode(run(21, {text("boot-data"), text("%7")}), 3);  // shorter than 3 characters
  expectCode(run(21, {text("boot-data"), text("%02")}), 0);
  EXPECT_EQ(variable("boot-data"), withAttributes("\x02"));
}

TEST_F(FirmwareVariableTest, ExistingVariablesKeepTheirTypeAndTheirImmutableFlag) {
  // A variable this system wrote as a Boolean: its record names the type for exactly its bytes.
  firmwareVariable("flag", std::string(1, '\x01'));
  Sha256::Digest digest = Sha256::digest(Data{1});
  Dictionary entry;
  entry.set("Type", Value("Boolean"));
  entry.set("Digest", Value(Data(digest.begin(), digest.end())));
  Dictionary record;
  record.set(FirmwareVariables::fileNameOf("flag").value(), Value(entry));
  file("var/lib/com.tavorin.system.securityagent3/FirmwareVariableTypes.plist", [&] {
    Data xml = plist::writeXml(Value(record)).value();
    return std::string(xml.begin(), xml.end());
  }());
  expectCode(run(21, {text("flag"), text("yes")}), 3);
  expectCode(run(21, {text("flag"), text("false")}), 0);
  EXPECT_EQ(variable("flag"), withAttributes(std::string(1, '\0')));
  EXPECT_NE(test::kernelFlags(path(fileOf("flag"))) & FS_IMMUTABLE_FL, 0);
  expectCode(run(21, {text("flag"), text("true")}), 0);
  EXPECT_EQ(variable("flag"), withAttributes("\x01"));

  // One the firmware wrote holds bytes: percent-hex only, and its flag comes back.
  firmwareVariable("vendor", "old value");
  expectCode(run(21, {text("vendor"), text("new")}), 3);
  expectCode(run(21, {text("vendor"), text("%6e%65%77")}), 0);
  EXPECT_EQ(variable("vendor"), withAttributes("new"));
  EXPECT_NE(test::kernelFlags(path(fileOf("vendor"))) & FS_IMMUTABLE_FL, 0);
}

TEST_F(FirmwareVariableTest, AVariableChangedBehindTheRecordHoldsData) {
  expectCode(run(21, {text("note"), text("plain")}), 0);
  file(fileOf("note"), withAttributes("changed by the firmware"));
  expectCode(run(21, {text("note"), text("plain")}), 3);
}

TEST_F(FirmwareVariableTest, WhatCannotBeAVariableIsRefused) {
  expectCode(run(21, {text(""), text("x")}), 3);
  expectCode(run(21, {text("name"), text("")}), 3);
  // Percent-hex without a byte gives no bytes, and a variable cannot hold nothing.
  expectCode(run(21, {text("name"), text("   ")}), 3);
  expectCode(run(21, {text("a/b"), text("x")}), 13);
  expectCode(run(21, {text(std::string(300, 'n')), text("x")}), 13);
  m_tree.makeLink(fileOf("link"), "/dev/null");
  expectCode(run(21, {text("link"), text("x")}), 13);
}

TEST_F(FirmwareVariableTest, WithoutFirmwareVariablesNothingIsDone) {
  test::TestFileTree::removeAll(path("sys"));
  expectCode(run(21, {text("name"), text("x")}), 0);
  EXPECT_FALSE(m_tree.exists("sys"));
}

class InterfaceTest : public test::SettingsCommandTest {};

// Only what is refused before any request reaches the kernel: real requests are made in a
// private network namespace by the end-to-end tests.
TEST_F(InterfaceTest, RefusesWhatCannotNameAnInterfaceOrAnMtu) {
  expectCode(run(22, {text(""), number(1500)}), 3);
  expectCode(run(22, {text("eth0"), number(0)}), 3);
  expectPosix(run(22, {text("sixteen-bytes-xx"), number(1500)}), ENODEV);
  expectPosix(run(22, {text(std::string("lo\0x", 4)), number(1500)}), ENODEV);
}

}  // namespace
}  // namespace krv
