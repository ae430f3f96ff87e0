#pragma once
#include <string>

// Request layout of one "ioctl" method, read from its "method_ioctl_cfg".
class OrvIoctlCfg {
  public:
    // "_IO", "_IOW", "_IOR", "_IOWR" ("_IOW|_IOR", "_IOR|_IOW"); anything else is refused.
    bool setDir(const char* text);
    // One character is taken as its code ("T"); longer texts must be "0x.." hex.
    bool setType(const char* text);

    int dir = 0;  // 0 none, 1 write, 2 read, 3 both
    int type = 0;
    int nr = 0;
    int size = 0;
    int bufsize = -1;
    int read_select = -1;
    std::string param_type = "undefined";
};
