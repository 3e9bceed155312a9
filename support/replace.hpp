#pragma once
// The last step of every rewriting edit: the finished temporary file takes the
// edited file's place by remove-then-rename (or, in the safe-edit mode, by a
// rename over it alone, so the name never stands empty), each retried every
// 0.5 s while another process (a media scanner, a viewer) still holds the file.

namespace yax {

// Returns true when `temp` now stands at `path`. After 100 sleeps on either
// step it logs "remove count is over 100 times. exit YAX process" or
// "rename count is over 100 times. exit YAX process" under `tag` and returns
// false; the temporary file is then left where it is.
bool replaceWithTemp(const char *path, const char *temp, const char *tag, bool remove_first);

}  // namespace yax
