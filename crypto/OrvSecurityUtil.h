#pragma once

class OrvSecurityUtil {
  public:
    // Decodes, deciphers and verifies a protected policy file into plain JSON at `dst`.
    // Nothing is written unless the digest matches.
    static bool decrypt(const char* src, const char* dst);
};
