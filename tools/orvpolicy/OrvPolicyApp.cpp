#include "tools/orvpolicy/OrvPolicyApp.h"

#include <ctype.h>
#include <errno.h>
#include <orvhost/host.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <fstream>
#include <random>

#include "daemon/core/OrvVersion.h"
#include "tools/codec/OrvPolicyDocument.h"
#include "tools/codec/OrvPolicyEncoder.h"
#include "tools/orvpolicy/OrvPolicyChecker.h"
#include "tools/orvpolicy/OrvPolicyInfo.h"
#include "tools/orvpolicy/OrvPolicySimulate.h"

namespace {

const char* kUsage =
    "usage: orvpolicy check FILE...            report problems orvd would meet\n"
    "       orvpolicy info FILE...             versions, protection, counts\n"
    "       orvpolicy protect IN OUT [--seed N]  write IN as a protected policy file\n"
    "       orvpolicy unprotect IN OUT         decode and verify a protected file\n"
    "       orvpolicy simulate POLICY TRACE [--json] [--strict-paths]\n"
    "                                          what orvd would do with a session trace\n"
    "       orvpolicy --version\n"
    "Exit status: 0 clean (warnings allowed), 1 errors found or the operation failed,\n"
    "2 a file could not be read.\n";

// The parsers orvpolicy borrows from the engine log their refusals; the report says it better.
void quiet(int, const char*, const char*, void*) {}

void printProblems(const std::string& file, const OrvPolicyDocument& doc) {
    for (const auto& p : doc.problems()) {
        bool positioned = !p.empty() && (isdigit(static_cast<unsigned char>(p[0])) ||
                                         p.compare(0, 14, "after decrypt ") == 0);
        if (positioned) {
            std::string rest = p;
            std::string prefix;
            if (rest.compare(0, 14, "after decrypt ") == 0) {
                prefix = "after decrypt ";
                rest = rest.substr(14);
            }
            size_t second = rest.find(": ");
            // "LINE:COL: text" becomes "FILE:LINE:COL: error: text".
            printf("%s:%s: error: %sjson: %s\n", file.c_str(), rest.substr(0, second).c_str(),
                   prefix.c_str(), rest.substr(second + 2).c_str());
        } else {
            printf("%s: error: %s\n", file.c_str(), p.c_str());
        }
    }
}

}  // namespace

int OrvPolicyApp::run(int argc, char** argv) {
    orvhost_set_log_hook(quiet, nullptr, false);
    if (argc < 2 || !strcmp(argv[1], "--help") || !strcmp(argv[1], "-h") ||
        !strcmp(argv[1], "help")) {
        fputs(kUsage, argc < 2 ? stderr : stdout);
        return argc < 2 ? EXIT_FINDINGS : EXIT_OK;
    }
    std::string cmd = argv[1];
    if (cmd == "--version") {
        printf("orvpolicy %s\n", ORV_VERSION);
        return EXIT_OK;
    }
    std::vector<std::string> args(argv + 2, argv + argc);
    if (cmd == "check" && !args.empty()) return check(args);
    if (cmd == "info" && !args.empty()) return info(args);
    if (cmd == "protect") return protect(args);
    if (cmd == "unprotect") return unprotect(args);
    if (cmd == "simulate") return OrvPolicySimulate().run(args);
    fprintf(stderr, "orvpolicy: bad command line\n%s", kUsage);
    return EXIT_FINDINGS;
}

int OrvPolicyApp::forEachDocument(const std::vector<std::string>& files, const Judge& judge) {
    int status = EXIT_OK;
    for (const auto& file : files) {
        OrvPolicyDocument doc;
        OrvPolicyDocument::Status s = doc.load(file);
        bool findings = false;
        if (s == OrvPolicyDocument::UNREADABLE) {
            fprintf(stderr, "orvpolicy: %s: cannot read the file (%s)\n", file.c_str(),
                    strerror(errno));
            status = EXIT_UNREADABLE;
        } else if (s == OrvPolicyDocument::INVALID) {
            printProblems(file, doc);
            findings = true;
        } else {
            findings = judge(file, doc);
        }
        if (findings && status == EXIT_OK) status = EXIT_FINDINGS;
    }
    return status;
}

int OrvPolicyApp::check(const std::vector<std::string>& files) {
    return forEachDocument(files, [](const std::string& file, const OrvPolicyDocument& doc) {
        OrvPolicyReport report;
        OrvPolicyChecker(doc.root(), doc.isProtected(), report).run();
        fputs(report.format(file).c_str(), stdout);
        return report.errorCount() > 0;
    });
}

int OrvPolicyApp::info(const std::vector<std::string>& files) {
    return forEachDocument(files, [](const std::string& file, const OrvPolicyDocument& doc) {
        fputs(OrvPolicyInfo(doc.root()).format(file, doc.isProtected()).c_str(), stdout);
        return false;
    });
}

bool OrvPolicyApp::writeFile(const std::string& path, const std::string& data) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << data;
    out.close();
    return !out.fail();
}

int OrvPolicyApp::protect(const std::vector<std::string>& args) {
    OrvProtectOptions opts;
    std::vector<std::string> files;
    for (size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "--seed" && i + 1 < args.size()) {
            char* end = nullptr;
            errno = 0;
            long long seed = strtoll(args[i + 1].c_str(), &end, 0);
            if (errno || *end || seed < 0 || seed > 0xFFFFFFFFLL) {
                fprintf(stderr, "orvpolicy: --seed takes a number from 0 to 4294967295\n");
                return EXIT_FINDINGS;
            }
            opts.seed = seed;
            // A given seed makes the whole output reproducible.
            opts.rngSeed = static_cast<uint32_t>(seed) ^ 0x5eed0000u;
            if (opts.rngSeed == 0) opts.rngSeed = 1;
            ++i;
        } else {
            files.push_back(args[i]);
        }
    }
    if (files.size() != 2) {
        fprintf(stderr, "orvpolicy: usage: protect IN OUT [--seed N]\n");
        return EXIT_FINDINGS;
    }
    if (opts.rngSeed == 0) {
        std::random_device rd;
        opts.rngSeed = rd() | 1u;
    }
    std::string json;
    if (!OrvPolicyDocument::readFile(files[0], json)) {
        fprintf(stderr, "orvpolicy: %s: cannot read the file (%s)\n", files[0].c_str(),
                strerror(errno));
        return EXIT_UNREADABLE;
    }
    Json::Value root;
    std::vector<std::string> problems;
    if (!OrvPolicyDocument::parse(json, root, problems)) {
        for (const auto& p : problems)
            printf("%s:%s (not protected: orvd could not read it)\n", files[0].c_str(), p.c_str());
        return EXIT_FINDINGS;
    }
    std::string out, error, back;
    if (!orvProtectPolicy(json, opts, out, &error)) {
        fprintf(stderr, "orvpolicy: cannot protect %s: %s\n", files[0].c_str(), error.c_str());
        return EXIT_FINDINGS;
    }
    // Decode with the daemon's own decoder before anything is written.
    if (!orvUnprotectPolicy(out, back, &error) || back != json) {
        fprintf(stderr, "orvpolicy: the protected form does not decode back (%s)\n", error.c_str());
        return EXIT_FINDINGS;
    }
    if (!writeFile(files[1], out)) {
        fprintf(stderr, "orvpolicy: cannot write %s (%s)\n", files[1].c_str(), strerror(errno));
        return EXIT_FINDINGS;
    }
    return EXIT_OK;
}

int OrvPolicyApp::unprotect(const std::vector<std::string>& args) {
    if (args.size() != 2) {
        fprintf(stderr, "orvpolicy: usage: unprotect IN OUT\n");
        return EXIT_FINDINGS;
    }
    std::string text, json, error;
    if (!OrvPolicyDocument::readFile(args[0], text)) {
        fprintf(stderr, "orvpolicy: %s: cannot read the file (%s)\n", args[0].c_str(),
                strerror(errno));
        return EXIT_UNREADABLE;
    }
    if (!orvUnprotectPolicy(text, json, &error)) {
        fprintf(stderr, "orvpolicy: %s is not a valid protected policy file (%s)\n",
                args[0].c_str(), error.c_str());
        return EXIT_FINDINGS;
    }
    if (!writeFile(args[1], json)) {
        fprintf(stderr, "orvpolicy: cannot write %s (%s)\n", args[1].c_str(), strerror(errno));
        return EXIT_FINDINGS;
    }
    return EXIT_OK;
}
