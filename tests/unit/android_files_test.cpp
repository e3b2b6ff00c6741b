// The Android build, init and SELinux files spell the daemon's paths, socket
// and name by hand; every such line must still match the code and CMake.
#include <gtest/gtest.h>
#include <linux/netlink.h>

#include <filesystem>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "core/log.h"
#include "netlink/nl_msg.h"
#include "steering/tables.h"

namespace fs = std::filesystem;

namespace {

const fs::path kRoot = fs::path(__FILE__).parent_path().parent_path().parent_path();

// Lines trimmed and inner blanks collapsed, so alignment is free.
std::string lines_of(const std::string &rel) {
    std::ifstream in(kRoot / rel);
    std::stringstream raw;
    raw << in.rdbuf();
    std::string text =
        std::regex_replace("\n" + raw.str() + "\n", std::regex("[ \t]*\n[ \t]*"), "\n");
    return std::regex_replace(text, std::regex("[ \t]+"), " ");
}

// Group 1 of every match of `re`.
std::vector<std::string> matches(const std::string &text, const char *re) {
    const std::regex rx(re);
    std::vector<std::string> out;
    for (std::sregex_iterator m(text.begin(), text.end(), rx), end; m != end; ++m)
        out.push_back((*m)[1]);
    return out;
}

std::string first_match(const std::string &rel, const char *re) {
    auto all = matches(lines_of(rel), re);
    return all.empty() ? "" : all[0];
}

std::string dir_of(const std::string &path) {
    return fs::path(path).parent_path().string();
}

TEST(AndroidFiles, NameTheCodesPathsSocketAndBinary) {
    EXPECT_EQ(ZEBUSR_NETLINK_GENERIC, NETLINK_GENERIC)
        << "the policy grants netlink_generic_socket";
    const std::string bin =
        first_match("CMakeLists.txt", "add_executable\\((\\w+) src/core/main.cpp");
    const std::string data = dir_of(ZEBUSR_LOG_PATH);
    ASSERT_FALSE(bin.empty());
    EXPECT_EQ(data, dir_of(ZEBUSR_CSV_PATH));

    const std::string rc = "android/zebusrd.rc", te = "android/sepolicy/zebusrd.te";
    std::vector<std::pair<std::string, std::string>> want = {
        {rc, "service " + bin + " /vendor/bin/" + bin},
        {rc, "mkdir " + data + " 0770 system system"},
        {rc, "user system"},
        {rc, "group system"},
        {rc, "capabilities"},
        {te, "type " + bin + "_exec, exec_type, vendor_file_type, file_type;"},
        {te, "init_daemon_domain(" + bin + ")"},
        {te, "type zebusrd_data_file, file_type, data_file_type;"},
        {te, "type proc_zeb, fs_type, proc_type;"},
        {"android/sepolicy/file_contexts",
         "/vendor/bin/" + bin + " u:object_r:" + bin + "_exec:s0"},
        {"android/sepolicy/file_contexts", data + "(/.*)? u:object_r:zebusrd_data_file:s0"},
        {te, "allow zebusrd self:netlink_generic_socket { create bind setopt read write };"},
        {te, "allow zebusrd proc_zeb:file { getattr open read write map };"},
        {te, "allow zebusrd zebusrd_data_file:file { create getattr open read write };"},
        {"Android.bp", "name: \"" + bin + "\","},
        {"Android.bp",
         "cpp_std: \"c++" + first_match("CMakeLists.txt", "CMAKE_CXX_STANDARD (\\d+)") + "\","},
        {"Android.bp", "init_rc: [\"" + rc + "\"],"},
    };
    for (const char *table : {ZEBUSR_CAP_PATH, ZEBUSR_GFLOW_PATH, ZEBUSR_SSFLOW_PATH}) {
        want.push_back({rc, "chown system system " + std::string(table)});
        want.push_back({rc, "chmod 0660 " + std::string(table)});
        want.push_back({"android/sepolicy/genfs_contexts",
                        "genfscon proc " +
                            std::regex_replace(dir_of(table), std::regex("^/proc/"), "/") +
                            " u:object_r:proc_zeb:s0"});
    }
    // Same warnings as the daemon's CMake flags.
    for (const std::string &w :
         matches(first_match("CMakeLists.txt", "set\\(ZEBUSR_DAEMON_FLAGS (.*)\\)"), "(-W\\S+)"))
        want.push_back({"Android.bp", "\"" + w + "\","});

    for (const auto &[file, line] : want)
        EXPECT_NE(lines_of(file).find("\n" + line + "\n"), std::string::npos)
            << file << ": " << line;
}

// Every test TEST_MAPPING names is a module, and every file Android.bp names exists.
TEST(AndroidFiles, NameOnlyWhatExists) {
    const std::string bp = lines_of("Android.bp");
    for (const std::string &name : matches(lines_of("TEST_MAPPING"), "\"name\": (\"\\w+\")"))
        EXPECT_NE(bp.find("\nname: " + name + ",\n"), std::string::npos) << name;
    for (const std::string &file : matches(bp, "\"([\\w/.]+\\.(cpp|rc))\""))
        EXPECT_TRUE(fs::exists(kRoot / file)) << file;
}

}  // namespace
