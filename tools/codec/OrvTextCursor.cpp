#include "tools/codec/OrvTextCursor.h"

void OrvTextCursor::advanceTo(size_t offset) {
    for (; mOffset < offset && mOffset < mText.size(); ++mOffset) {
        if (mText[mOffset] == '\n') {
            ++mLine;
            mColumn = 1;
        } else {
            ++mColumn;
        }
    }
}
