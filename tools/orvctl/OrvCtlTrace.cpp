#include "tools/orvctl/OrvCtlTrace.h"

#include <fstream>

bool OrvCtlTrace::split(const std::string& line, std::vector<std::string>& words,
                        std::string& error) {
    words.clear();
    size_t i = 0;
    while (i < line.size()) {
        char c = line[i];
        if (c == ' ' || c == '\t' || c == '\r') {
            ++i;
        } else if (c == '#') {
            break;
        } else if (c == '"') {
            size_t end = line.find('"', i + 1);
            if (end == std::string::npos) {
                error = "unterminated quote";
                return false;
            }
            words.push_back(line.substr(i + 1, end - i - 1));
            i = end + 1;
        } else {
            size_t end = line.find_first_of(" \t\r#", i);
            if (end == std::string::npos) end = line.size();
            words.push_back(line.substr(i, end - i));
            i = end;
        }
    }
    return true;
}

OrvCtlTrace::Result OrvCtlTrace::load(const std::string& path, std::vector<Step>& steps,
                                      std::vector<std::string>& errors) {
    std::ifstream in(path);
    if (!in) {
        errors.push_back(path + ": cannot read the trace");
        return UNREADABLE;
    }
    std::string line;
    int number = 0;
    while (std::getline(in, line)) {
        ++number;
        std::vector<std::string> words;
        std::string error;
        if (split(line, words, error) && words.empty()) continue;
        Step step;
        step.line = number;
        if (error.empty() && OrvCtlCommand::parse(words, true, step.command, error)) {
            for (const auto& w : words) step.text += (step.text.empty() ? "" : " ") + w;
            steps.push_back(step);
        } else {
            errors.push_back(path + ":" + std::to_string(number) + ": " + error);
        }
    }
    return errors.empty() ? OK : BAD_LINES;
}
