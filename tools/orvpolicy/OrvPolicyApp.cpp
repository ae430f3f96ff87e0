#include "tools/orvpolicy/OrvPolicyApp.h"

#include <ctype.h>
#include <errno.h>
#include <orvhost/host.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include <fstream>
#include <random>

#include "core/OrvVersion.h"
#include "tools/codec/OrvPolicyDocument.h"
#include "tools/codec/OrvPolicyEncoder.h"
#include "tools/orvpolicy/OrvPolicyChecker.h"
#include "tools/orvpolicy/OrvPolicyInfo.h"
#include "tools/orvpolicy/OrvPolicyKeyScan.h"
#include "tools/orvpolicy/OrvPolicySimulate.h"

namespace {

const char* kUsage =
    "usage: orvpolicy check [--strict] [--format text|json] FILE...\n"
    "                                          report problems orvd would meet\n"
    "       orvpolicy info [--apps] FILE...    versions, protection, counts; --apps: the\n"
    "                                          application x state table and the groups\n"
    "       orvpolicy protect IN OUT [--seed N] [--force]\n"
    "                                          write IN as a protected policy file\n"
    "       orvpolicy unprotect IN OUT         decode and verify a protected file\n"
    "       orvpolicy simulate POLICY TRACE [--json] [--strict-paths]\n"
    "                                          what orvd would do with a session trace\n"
    "       orvpolicy --version\n"
    "Exit status: 0 clean (warnings allowed unless --strict), 1 errors found or the operation\n"
    "failed, 2 a file could not be read, 3 usage error.\n";

int usageError(const std::string& problem) {
    fprintf(stderr, "orvpolicy: %s (see orvpolicy --help)\n", problem.c_str());
    return OrvPolicyApp::EXIT_USAGE;
}

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
    if (cmd == "check") return check(args);
    if (cmd == "info") return info(args);
    if (cmd == "protect") return protect(args);
    if (cmd == "unprotect") return unprotect(args);
    if (cmd == "simulate") return OrvPolicySimulate().run(args);
    return usageError(cmd.compare(0, 1, "-") == 0 ? "unknown option " + cmd
                                                  : "unknown command \"" + cmd + "\"");
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

OrvPolicyReport OrvPolicyApp::judge(const OrvPolicyDocument& doc, bool asProtected) {
    OrvPolicyReport report;
    OrvPolicyChecker(doc.root(), asProtected, report).run();
    OrvPolicyKeyScan scan(doc.json());
    for (const auto& d : scan.duplicates()) {
        std::string location =
            d.path.compare(0, 13, "applications.") == 0 ? d.path.substr(13) : d.path;
        report.error(location, "duplicate key \"" + d.key +
                                   "\": orvd keeps only this one and drops "
                                   "the one at line " +
                                   std::to_string(d.first.line) + " with all it holds");
        report.findings().back().line = d.again.line;
        report.findings().back().column = d.again.column;
    }
    report.place(scan, doc.root());
    return report;
}

int OrvPolicyApp::check(const std::vector<std::string>& args) {
    bool strict = false, json = false;
    std::vector<std::string> files;
    for (size_t i = 0; i < args.size(); ++i) {
        const std::string& a = args[i];
        if (a == "--strict") {
            strict = true;
        } else if (a == "--format" || a.compare(0, 9, "--format=") == 0) {
            std::string v = a == "--format" ? (i + 1 < args.size() ? args[++i] : "") : a.substr(9);
            if (v != "text" && v != "json")
                return usageError("check: --format takes text or json, not \"" + v + "\"");
            json = v == "json";
        } else if (a.compare(0, 2, "--") == 0) {
            return usageError("check: unknown option " + a);
        } else {
            files.push_back(a);
        }
    }
    if (files.empty()) return usageError("check: no FILE given");
    int errors = 0, warnings = 0;
    Json::Value all(Json::arrayValue);
    int status = EXIT_OK;
    for (const auto& file : files) {
        OrvPolicyDocument doc;
        OrvPolicyDocument::Status s = doc.load(file);
        if (s == OrvPolicyDocument::UNREADABLE) {
            fprintf(stderr, "orvpolicy: %s: cannot read the file (%s)\n", file.c_str(),
                    strerror(errno));
            status = EXIT_UNREADABLE;
            continue;
        }
        if (s == OrvPolicyDocument::INVALID) {
            errors += static_cast<int>(doc.problems().size());
            if (!json) printProblems(file, doc);
            for (const auto& p : doc.problems()) {
                Json::Value j;
                j["file"] = file;
                j["severity"] = "error";
                j["message"] = p;
                all.append(j);
            }
            if (status == EXIT_OK) status = EXIT_FINDINGS;
            continue;
        }
        OrvPolicyReport report = judge(doc, doc.isProtected());
        if (strict) report.promoteWarnings();
        errors += report.count(OrvPolicyReport::ERROR);
        warnings += report.count(OrvPolicyReport::WARNING);
        if (json)
            report.appendJson(file, all);
        else
            fputs(report.format(file).c_str(), stdout);
        if (report.count(OrvPolicyReport::ERROR) > 0 && status == EXIT_OK) status = EXIT_FINDINGS;
    }
    if (json) {
        Json::Value v;
        v["findings"] = all;
        v["errors"] = errors;
        v["warnings"] = warnings;
        fputs(v.toStyledString().c_str(), stdout);
    } else {
        printf("%d error%s, %d warning%s\n", errors, errors == 1 ? "" : "s", warnings,
               warnings == 1 ? "" : "s");
    }
    return status;
}

int OrvPolicyApp::info(const std::vector<std::string>& args) {
    bool apps = false;
    std::vector<std::string> files;
    for (const auto& a : args) {
        if (a == "--apps")
            apps = true;
        else if (a.compare(0, 2, "--") == 0)
            return usageError("info: unknown option " + a);
        else
            files.push_back(a);
    }
    if (files.empty()) return usageError("info: no FILE given");
    return forEachDocument(files, [apps](const std::string& file, const OrvPolicyDocument& doc) {
        OrvPolicyInfo info(doc.root());
        fputs(info.format(file, doc.isProtected()).c_str(), stdout);
        if (apps) fputs(info.formatApps().c_str(), stdout);
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
    bool force = false;
    for (size_t i = 0; i < args.size(); ++i) {
        if (args[i] == "--force") {
            force = true;
        } else if (args[i] == "--seed" && i + 1 < args.size()) {
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
        } else if (args[i].compare(0, 2, "--") == 0) {
            return usageError("protect: unknown option " + args[i]);
        } else {
            files.push_back(args[i]);
        }
    }
    if (files.size() != 2) return usageError("protect: needs IN and OUT");
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
    OrvPolicyDocument doc;
    if (!force && doc.load(files[0]) == OrvPolicyDocument::OK) {
        // Judged as the protected file it is about to become: programs are allowed there.
        const int errors = judge(doc, true).count(OrvPolicyReport::ERROR);
        if (errors > 0) {
            fprintf(stderr,
                    "orvpolicy: protect: %s has %d error%s (see orvpolicy check); --force "
                    "protects it anyway\n",
                    files[0].c_str(), errors, errors == 1 ? "" : "s");
            return EXIT_FINDINGS;
        }
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
