#include "crypto/OrvSecurityUtil.h"

#include "crypto/OrvPolicyDecoder.h"

bool OrvSecurityUtil::decrypt(const char* src, const char* dst) {
    return decrypt_orv_policy(src, dst) != 0;
}
