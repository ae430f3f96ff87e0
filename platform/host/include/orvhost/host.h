#pragma once
// Host-only helpers that the Android platform does not have.
#include <string>

// A fixed device location ("/data/orvpolicy") as a path under $ORV_ROOT (unset or empty: "/").
std::string orvhost_path(const char* devicePath);

// Log records are also handed to this hook (after formatting, before line splitting), one call
// per record, serialised. A null hook removes it. `echo` false keeps records off stderr.
typedef void (*orvhost_log_hook_t)(int prio, const char* tag, const char* text, void* cookie);
void orvhost_set_log_hook(orvhost_log_hook_t hook, void* cookie, bool echo);
