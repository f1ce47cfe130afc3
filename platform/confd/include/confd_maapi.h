/*
 * ConfD C API, MAAPI part: reads of a transaction through a MAAPI socket.
 * Our own declarations of the documented subset. Paths are formats with the
 * modifiers confd_lib_cdb(3) lists under PATHS (%s %d %i %u %x %*x %h %*h
 * %ip4 %ip6 %%); "[N]" entry indexes are CDB-only and refused here.
 */
#ifndef CONFD_MAAPI_H
#define CONFD_MAAPI_H

#include "confd_lib.h"

#ifdef __cplusplus
extern "C" {
#endif

enum maapi_iter_op {
  MOP_CREATED = 1,
  MOP_DELETED = 2,
  MOP_MODIFIED = 3,
  MOP_VALUE_SET = 4,
  MOP_MOVED_AFTER = 5,
  MOP_ATTR_SET = 6
};

/* What a diff iterator answers: ITER_STOP ends the walk, ITER_RECURSE
 * descends into the node reported, ITER_CONTINUE goes on with its next
 * sibling, ITER_UP skips the rest of its siblings. ITER_SUSPEND asks for
 * maapi_diff_iterate_resume, which the store does not offer: the walk fails
 * with CONFD_ERR_PROTOUSAGE. */
enum maapi_iter_ret {
  ITER_STOP = 1,
  ITER_RECURSE = 2,
  ITER_CONTINUE = 3,
  ITER_SUSPEND = 4,
  ITER_UP = 5
};

/* flags of the diff iteration; the store honours ITER_WANT_P_CONTAINER and
 * ignores the others. */
enum maapi_iter_flags {
  ITER_WANT_PREV = (1 << 0),
  ITER_WANT_ANCESTOR_DELETE = (1 << 1),
  ITER_WANT_ATTR = (1 << 2),
  ITER_WANT_CLI_STR = (1 << 3),
  ITER_WANT_SCHEMA_ORDER = (1 << 4),
  ITER_WANT_LEAF_FIRST_ORDER = (1 << 5),
  ITER_WANT_LEAF_LAST_ORDER = (1 << 6),
  ITER_WANT_REVERSE = (1 << 7),
  ITER_WANT_P_CONTAINER = (1 << 8)
};

typedef enum maapi_iter_op confd_iter_op;
typedef enum maapi_iter_ret confd_iter_ret;

/* Iteration over a list. After maapi_get_next, n is the number of keys of
 * the current entry in keys[], or 0 when the list is exhausted.
 * secondary_index and xpath_expr are set to NULL by maapi_init_cursor; the
 * store has no secondary indexes and refuses a cursor with either set. */
struct maapi_cursor {
  confd_value_t keys[MAXKEYLEN];
  int n;
  char *secondary_index;
  char *xpath_expr;
  /* the store's own state */
  char *path;
  int socket;
  int thandle;
  void *cursor_id;
};

/* 1 when the node exists, 0 when not, CONFD_ERR on a bad path. */
int maapi_exists(int sock, int thandle, const char *fmt, ...);

/* Number of entries of a list, or CONFD_ERR. */
int maapi_num_instances(int sock, int thandle, const char *fmt, ...);

/* Leaf reads; CONFD_OK when read. Strings and binaries are duplicated for
 * the caller, who releases them with confd_free_value(). */
int maapi_get_elem(int sock, int thandle, confd_value_t *v, const char *fmt, ...);
int maapi_get_int32_elem(int sock, int thandle, int32_t *rval, const char *fmt, ...);
int maapi_get_u_int32_elem(int sock, int thandle, u_int32_t *rval, const char *fmt, ...);
int maapi_get_ipv4_and_plen_elem(int sock, int thandle, struct confd_ipv4_prefix *rval,
                                 const char *fmt, ...);
int maapi_get_ipv6_and_plen_elem(int sock, int thandle, struct confd_ipv6_prefix *rval,
                                 const char *fmt, ...);

/* Cursors over a list in data-store order. Every initialised cursor must be
 * destroyed. */
int maapi_init_cursor(int sock, int thandle, struct maapi_cursor *mc, const char *fmt, ...);
int maapi_get_next(struct maapi_cursor *mc);
void maapi_destroy_cursor(struct maapi_cursor *mc);

/*
 * Bulk read: at most *nobj entries, starting at the entry after the one the
 * cursor names (the first entry after maapi_init_cursor), each as the first
 * n values of its value array (confd_types(3) "Value Array": every child in
 * schema order, depth first; a container as its C_XMLTAG followed by its
 * children, an absent leaf or presence container as C_NOEXISTS, a list as
 * one C_NOEXISTS, a leaf-list as one C_LIST) into values[i * n + j].
 * Returns the highest number of values any entry read has (which may exceed
 * n), or CONFD_ERR. The cursor then names the last entry read; when fewer
 * than *nobj entries were left, *nobj is the number read and mc->n is 0.
 * Allocated values (strings, binaries, lists) are the caller's to free.
 */
int maapi_get_objects(struct maapi_cursor *mc, confd_value_t *values, int n, int *nobj);

/* Evaluates expr in the new configuration with the context node fmt ("/" or
 * "" for the root; a context that does not exist leaves the root as the
 * context, so absolute expressions still see the whole configuration; a list
 * without keys or index is no node and is refused with CONFD_ERR_BADPATH).
 * *res is the string value of the first node selected (malloc'ed, empty when
 * nothing matches). An empty result stays recorded on the transaction as
 * open until the transaction ends, which releases it: the element's
 * plug-ins leave empty results unfreed, and this shows each one as a leak
 * without the store growing across commits. Only expressions that select nodes are supported: one
 * whose result is a number, string or boolean (count(), string(),
 * comparisons) is refused with CONFD_ERR_XPATH. */
int maapi_xpath_eval_expr(int sock, int thandle, const char *expr, char **res,
                          void (*trace)(char *), const char *fmt, ...);

/* Walks the changes of the transaction below fmt, parents first; a path to
 * a node that exists in neither configuration has no changes (CONFD_OK,
 * iter never called). oldv is always NULL; newv is the new value of a leaf
 * set (MOP_VALUE_SET). A presence container with changes below it is
 * reported (MOP_MODIFIED) only with ITER_WANT_P_CONTAINER in flags; without
 * it the changes below it are reported as if it were a plain container. */
int maapi_keypath_diff_iterate(int sock, int thandle,
                               enum maapi_iter_ret (*iter)(confd_hkeypath_t *kp,
                                                           enum maapi_iter_op op,
                                                           confd_value_t *oldv, confd_value_t *newv,
                                                           void *state),
                               int flags, void *initstate, const char *fmt, ...);

#ifdef __cplusplus
}
#endif

#endif /* CONFD_MAAPI_H */
