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
    explicit EditGroup(FILE *fp);
    explicit EditGroup(const char *path);
    bool ready() const { return scope_ == nullptr || scope_->ready(); }
    // The save's own result, or 0 when the group had to put the file back.
    int finish(int result);

private:
    std::unique_ptr<UndoScope> scope_;
};

}  // namespace yax::api
