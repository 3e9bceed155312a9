#pragma once
// In the safe-edit mode a save is one edit, however many steps it takes: a
// replace deletes and then adds, a save into a file with legacy audio drops
// the legacy block and then adds the entries. One undo scope over everything
// the save may change (from the first data block, or the first sound, to the
// end) puts all of it back when a later step fails or is interrupted. In the
// default mode there is none.
#include <cstdio>
#include <memory>

#include "support/safe_file.hpp"

namespace yax::api {

class EditGroup {
public:
    // `key`, when given, is the name a save stores and `replace` whether it
    // may replace a same-name entry: a save that can only append to a
    // trailer saves the bytes from the header on, not every block.
    explicit EditGroup(FILE *fp, const char *key = nullptr, bool replace = true);
    explicit EditGroup(const char *path, const char *key = nullptr, bool replace = true);
    bool ready() const { return scope_ == nullptr || scope_->ready(); }
    // The save's own result, or 0 when the group had to put the file back.
    int finish(int result);

private:
    std::unique_ptr<UndoScope> scope_;
};

}  // namespace yax::api
