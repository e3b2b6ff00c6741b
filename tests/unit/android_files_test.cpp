// The Android build, init and SELinux files spell the daemon's paths, socket
// and name by hand; every such line must still match the code and CMake.
#include <gtest/gtest.h>
#include <linux/netlink.h>

#include <filesystem>
#include <fstream>
#include <map>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "core/log.h"
#include "netlink/nl_msg.h"
#include "steering/tables.h"

namespace {

namespace fs = std::filesystem;
const fs::path kRoot = fs::path(__FILE__).parent_path().parent_path().parent_path();

// The file's lines, trimmed, blanks collapsed, each framed by "\n".
std::string lines_of(const std::string &rel) {
    std::stringstream raw;
    raw << std::ifstream(kRoot / rel).rdbuf();
    std::string text =
        std::regex_replace("\n" + raw.str() + "\n", std::regex("[ \t]*\n[ \t]*"), "\n");
    return std::regex_replace(text, std::regex("[ \t]+"), " ");
}

// Group 1 of every match of `re` in `text`.
std::vector<std::string> matches(const std::string &text, const char *re) {
    std::vector<std::string> out;
    const std::regex rx(re);
    for (std::sregex_iterator m(text.begin(), text.end(), rx), end; m != end; ++m)
        out.push_back((*m)[1]);
    return out;
}

std::string dir_of(const std::string &path) {
    return fs::path(path).parent_path().string();
}

TEST(AndroidFiles, SpellTheCodesPathsSocketAndBinary) {
    EXPECT_EQ(ZEBUSR_NETLINK_GENERIC, NETLINK_GENERIC)
        << "the policy grants netlink_generic_socket";
    const std::string cmake = lines_of("CMakeLists.txt");
    const std::string bin = matches(cmake, "add_executable\\((\\w+) src/core/main.cpp").at(0);
    const std::string data = dir_of(ZEBUSR_LOG_PATH);
    EXPECT_EQ(data, dir_of(ZEBUSR_CSV_PATH));

    const std::string rc = "android/zebusrd.rc", bp = "Android.bp";
    std::map<std::string, std::vector<std::string>> want = {
        {rc,
         {"service " + bin + " /vendor/bin/" + bin, "user system", "group system", "capabilities",
          "mkdir " + data + " 0770 system system"}},
        {bp,
         {"name: \"" + bin + "\",", "init_rc: [\"" + rc + "\"],",
          "cpp_std: \"c++" + matches(cmake, "CMAKE_CXX_STANDARD (\\d+)").at(0) + "\","}},
        {"android/sepolicy/file_contexts",
         {"/vendor/bin/" + bin + " u:object_r:" + bin + "_exec:s0",
          data + "(/.*)? u:object_r:zebusrd_data_file:s0"}},
        {"android/sepolicy/zebusrd.te",
         {"type " + bin + "_exec, exec_type, vendor_file_type, file_type;",
          "init_daemon_domain(" + bin + ")", "type zebusrd_data_file, file_type, data_file_type;",
          "type proc_zeb, fs_type, proc_type;",
          "allow zebusrd self:netlink_generic_socket { create bind setopt read write };",
          "allow zebusrd proc_zeb:file { getattr open read write map };",
          "allow zebusrd zebusrd_data_file:file { create getattr open read write };"}},
    };
    for (std::string table : {ZEBUSR_CAP_PATH, ZEBUSR_GFLOW_PATH, ZEBUSR_SSFLOW_PATH}) {
        want[rc].insert(want[rc].end(), {"chown system system " + table, "chmod 0660 " + table});
        want["android/sepolicy/genfs_contexts"].push_back(
            "genfscon proc " + std::regex_replace(dir_of(table), std::regex("^/proc/"), "/") +
            " u:object_r:proc_zeb:s0");
    }
    for (const std::string &w :
         matches(matches(cmake, "set\\(ZEBUSR_DAEMON_FLAGS (.*)\\)").at(0), "(-W\\S+)"))
        want[bp].push_back("\"" + w + "\",");
    for (const auto &[file, lines] : want)
        for (const std::string &line : lines)
            EXPECT_NE(lines_of(file).find("\n" + line + "\n"), std::string::npos)
                << file << ": " << line;
}

// Every test TEST_MAPPING names is a module, and every file Android.bp names exists.
TEST(AndroidFiles, NameOnlyWhatExists) {
    const std::string bp = lines_of("Android.bp");
    for (const std::string &name : matches(lines_of("TEST_MAPPING"), "\"name\": (\"\\w+\")"))
        EXPECT_NE(bp.find("\nname: " + name + ",\n"), std::string::npos) << name;
    for (const std::string &file : matches(bp, "\"([\\w/.]+\\.(cpp|rc|tsv|awk))\""))
        EXPECT_TRUE(fs::exists(kRoot / file)) << file;
}

}  // namespace
