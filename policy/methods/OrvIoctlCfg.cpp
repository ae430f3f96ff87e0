#include "policy/methods/OrvIoctlCfg.h"

#include <string.h>

#include "policy/methods/OrvHex.h"

bool OrvIoctlCfg::setDir(const char* text) {
    if (text == nullptr) return false;
    if (strcmp(text, "_IO") == 0) {
        dir = 0;
    } else if (strcmp(text, "_IOW") == 0) {
        dir = 1;
    } else if (strcmp(text, "_IOR") == 0) {
        dir = 2;
    } else if (strcmp(text, "_IOWR") == 0 || strcmp(text, "_IOW|_IOR") == 0 ||
               strcmp(text, "_IOR|_IOW") == 0) {
        dir = 3;
    } else {
        return false;
    }
    return true;
}

bool OrvIoctlCfg::setType(const char* text) {
    if (text == nullptr) return false;
    if (strlen(text) == 1) {
        type = static_cast<signed char>(text[0]);
        return true;
    }
    int value = 0;
    if (hex2Int(text, value) != 0) return false;
    type = value;
    return true;
}
