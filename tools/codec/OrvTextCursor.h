#pragma once
// A place in a policy text as an editor shows it, line and column from 1, found by walking the
// text forward from its start.
#include <stddef.h>

#include <string>

class OrvTextCursor {
  public:
    explicit OrvTextCursor(const std::string& text) : mText(text) {}

    // Walks on to `offset`, no further than the text's end.
    void advanceTo(size_t offset);

    size_t offset() const { return mOffset; }
    int line() const { return mLine; }
    int column() const { return mColumn; }

  private:
    const std::string& mText;
    size_t mOffset = 0;
    int mLine = 1;
    int mColumn = 1;
};
