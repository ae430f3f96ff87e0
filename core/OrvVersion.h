#pragma once
// The release of orvd and its tools, printed by each program's --version.
#define ORV_VERSION "1.0"
