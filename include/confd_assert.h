// Type-tag assertion for ConfD values. A value taken from a keypath, a
// cursor or a read must carry the type the data model gives it; anything
// else is a programming error that ends the process. Assertions stay active
// in every build type, and the report quotes the expression as written at
// the call, e.g. ASSERT_CONFD_TYPE(&cursor.keys[0], C_BUF) reports
// "(&cursor.keys[0])->type == C_BUF".
#ifndef CONFD_ASSERT_H
#define CONFD_ASSERT_H

#include <cassert>

#define ASSERT_CONFD_TYPE(v, t) assert((v)->type == t)

#endif  // CONFD_ASSERT_H
