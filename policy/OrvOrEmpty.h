#pragma once
// The names and paths an action carries may be null where a text is wanted.
inline const char* orEmpty(const char* text) {
    return text ? text : "";
}
