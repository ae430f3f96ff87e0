#pragma once
// Policy documents of the end-to-end benchmark.
#include <string>

// The tracked application "com.bench.app": entering run, listview_scroll and listview_fling
// writes "1", "2" and "3" into `effect`.
std::string e2eEventPolicy(const std::string& effect);

// `apps` generated applications, each with parameters, three states and a group reference.
std::string e2eManyAppsPolicy(int apps);

// The generated policy with as many applications as fit in `bytes` of text.
std::string e2eSizedPolicy(size_t bytes);
