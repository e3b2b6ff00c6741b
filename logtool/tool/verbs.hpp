// The verbs of zebusr-log. Each takes the words after its name and returns
// the process's exit status: 0 done (and, for check and replay, all good),
// 1 a difference or a line that does not match, 2 nothing could be read or
// the words are wrong.
#pragma once

#include <string>
#include <vector>

namespace zlog {

using Words = std::vector<std::string>;

int verb_check(const Words &w);
int verb_explain(const Words &w);
int verb_trace(const Words &w);
int verb_scenario(const Words &w);
int verb_replay(const Words &w);
int verb_picture(const Words &w);
int verb_lines(const Words &w);

}  // namespace zlog
