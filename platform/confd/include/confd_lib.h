/*
 * ConfD C API, library part: value types, keypaths, transaction contexts and
 * the general-purpose helpers. Our own declarations of the documented API
 * subset the element's validation plug-ins use; the implementation is the
 * in-process data store of this project (libconfd).
 */
#ifndef CONFD_LIB_H
#define CONFD_LIB_H

#include <netinet/in.h>
#include <stdint.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

#define CONFD_OK 0
#define CONFD_ERR (-1)
#define CONFD_EOF (-2)

/* Values of confd_errno after a failed call. */
#define CONFD_ERR_NOEXISTS 1    /* the path names nothing that exists */
#define CONFD_ERR_BADTYPE 5     /* the node's value is of another type */
#define CONFD_ERR_BADPATH 8     /* malformed path, or one the schema does not know */
#define CONFD_ERR_PROTOUSAGE 21 /* wrong call sequence (no session, bad cursor) */
#define CONFD_ERR_NOSESSION 22  /* unknown socket or transaction handle */
#define CONFD_ERR_XPATH 50      /* XPath expression that cannot be evaluated */

#define MAXDEPTH 20 /* deepest keypath */
#define MAXKEYLEN 9 /* most keys of one list entry */

enum confd_vtype {
  C_NOEXISTS = 1,
  C_XMLTAG = 2,
  C_SYMBOL = 3,
  C_STR = 4,
  C_BUF = 5,
  C_INT8 = 6,
  C_INT16 = 7,
  C_INT32 = 8,
  C_INT64 = 9,
  C_UINT8 = 10,
  C_UINT16 = 11,
  C_UINT32 = 12,
  C_UINT64 = 13,
  C_DOUBLE = 14,
  C_IPV4 = 15,
  C_IPV6 = 16,
  C_BOOL = 17,
  C_QNAME = 18,
  C_DATETIME = 19,
  C_DATE = 20,
  C_TIME = 23,
  C_DURATION = 27,
  C_ENUM_VALUE = 28,
  C_BIT32 = 29,
  C_BIT64 = 30,
  C_LIST = 31,
  C_XMLBEGIN = 32,
  C_XMLEND = 33,
  C_OBJECTREF = 34,
  C_UNION = 35,
  C_PTR = 36,
  C_CDBBEGIN = 37,
  C_OID = 38,
  C_BINARY = 39,
  C_IPV4PREFIX = 40,
  C_IPV6PREFIX = 41,
  C_DEFAULT = 42,
  C_DECIMAL64 = 43,
  C_IDENTITYREF = 44,
  C_XMLBEGINDEL = 45,
  C_DQUAD = 46,
  C_HEXSTR = 47,
  C_IPV4_AND_PLEN = 48,
  C_IPV6_AND_PLEN = 49,
  C_MAXTYPE
};

struct xml_tag {
  u_int32_t tag;
  u_int32_t ns;
};

typedef struct confd_buf {
  unsigned int size;
  unsigned char *ptr;
} confd_buf_t;

typedef struct confd_buf_const {
  unsigned int size;
  const unsigned char *ptr;
} confd_buf_const_t;

struct confd_ipv4_prefix {
  struct in_addr ip;
  u_int8_t len;
};

struct confd_ipv6_prefix {
  struct in6_addr ip6;
  u_int8_t len;
};

typedef struct confd_value {
  enum confd_vtype type;
  union {
    struct xml_tag xmltag;
    u_int32_t symbol;
    confd_buf_t buf;
    confd_buf_const_t c_buf;
    char *s;
    const char *c_s;
    int8_t i8;
    int16_t i16;
    int32_t i32;
    int64_t i64;
    u_int8_t u8;
    u_int16_t u16;
    u_int32_t u32;
    u_int64_t u64;
    double d;
    struct in_addr ip;
    struct in6_addr ip6;
    int boolean;
    int32_t enumvalue;
    u_int32_t b32;
    u_int64_t b64;
    struct confd_ipv4_prefix ipv4prefix;
    struct confd_ipv6_prefix ipv6prefix;
    void *ptr;
  } val;
} confd_value_t;

/* Accessors. */
#define CONFD_GET_XMLTAG(v) ((v)->val.xmltag.tag)
#define CONFD_GET_XMLTAG_NS(v) ((v)->val.xmltag.ns)
#define CONFD_GET_BUFSIZE(v) ((v)->val.buf.size)
#define CONFD_GET_BUFPTR(v) ((v)->val.buf.ptr)
#define CONFD_GET_CBUFPTR(v) ((const char *)(v)->val.buf.ptr)
#define CONFD_GET_BINARY_SIZE(v) ((v)->val.buf.size)
#define CONFD_GET_BINARY_PTR(v) ((v)->val.buf.ptr)
#define CONFD_GET_INT8(v) ((v)->val.i8)
#define CONFD_GET_INT16(v) ((v)->val.i16)
#define CONFD_GET_INT32(v) ((v)->val.i32)
#define CONFD_GET_INT64(v) ((v)->val.i64)
#define CONFD_GET_UINT8(v) ((v)->val.u8)
#define CONFD_GET_UINT16(v) ((v)->val.u16)
#define CONFD_GET_UINT32(v) ((v)->val.u32)
#define CONFD_GET_UINT64(v) ((v)->val.u64)
#define CONFD_GET_BOOL(v) ((v)->val.boolean)
#define CONFD_GET_ENUM_VALUE(v) ((v)->val.enumvalue)
#define CONFD_GET_IPV4(v) ((v)->val.ip)
#define CONFD_GET_IPV6(v) ((v)->val.ip6)
#define CONFD_GET_IPV4PREFIX(v) ((v)->val.ipv4prefix)
#define CONFD_GET_IPV6PREFIX(v) ((v)->val.ipv6prefix)
#define CONFD_GET_IPV4_AND_PLEN(v) ((v)->val.ipv4prefix)
#define CONFD_GET_IPV6_AND_PLEN(v) ((v)->val.ipv6prefix)

/* Setters; the buffer setters do not copy. */
#define CONFD_SET_NOEXISTS(v) ((v)->type = C_NOEXISTS)
#define CONFD_SET_XMLTAG(v, t, n) \
  ((v)->type = C_XMLTAG, (v)->val.xmltag.tag = (t), (v)->val.xmltag.ns = (n))
#define CONFD_SET_BUF(v, p, sz) \
  ((v)->type = C_BUF, (v)->val.buf.ptr = (unsigned char *)(p), (v)->val.buf.size = (sz))
#define CONFD_SET_CBUF(v, p, sz) \
  ((v)->type = C_BUF, (v)->val.c_buf.ptr = (const unsigned char *)(p), (v)->val.c_buf.size = (sz))
#define CONFD_SET_STR(v, p) CONFD_SET_CBUF(v, p, strlen(p))
#define CONFD_SET_BINARY(v, p, sz) \
  ((v)->type = C_BINARY, (v)->val.buf.ptr = (unsigned char *)(p), (v)->val.buf.size = (sz))
#define CONFD_SET_INT8(v, x) ((v)->type = C_INT8, (v)->val.i8 = (x))
#define CONFD_SET_INT16(v, x) ((v)->type = C_INT16, (v)->val.i16 = (x))
#define CONFD_SET_INT32(v, x) ((v)->type = C_INT32, (v)->val.i32 = (x))
#define CONFD_SET_INT64(v, x) ((v)->type = C_INT64, (v)->val.i64 = (x))
#define CONFD_SET_UINT8(v, x) ((v)->type = C_UINT8, (v)->val.u8 = (x))
#define CONFD_SET_UINT16(v, x) ((v)->type = C_UINT16, (v)->val.u16 = (x))
#define CONFD_SET_UINT32(v, x) ((v)->type = C_UINT32, (v)->val.u32 = (x))
#define CONFD_SET_UINT64(v, x) ((v)->type = C_UINT64, (v)->val.u64 = (x))
#define CONFD_SET_BOOL(v, x) ((v)->type = C_BOOL, (v)->val.boolean = (x))
#define CONFD_SET_ENUM_VALUE(v, x) ((v)->type = C_ENUM_VALUE, (v)->val.enumvalue = (x))
#define CONFD_SET_IPV4(v, x) ((v)->type = C_IPV4, (v)->val.ip = (x))
#define CONFD_SET_IPV6(v, x) ((v)->type = C_IPV6, (v)->val.ip6 = (x))
#define CONFD_SET_IPV4_AND_PLEN(v, x) ((v)->type = C_IPV4_AND_PLEN, (v)->val.ipv4prefix = (x))
#define CONFD_SET_IPV6_AND_PLEN(v, x) ((v)->type = C_IPV6_AND_PLEN, (v)->val.ipv6prefix = (x))

/*
 * A keypath, innermost element first: v[0] is the last element of the path,
 * v[len - 1] the first. An element is either a tag (v[i][0] of type C_XMLTAG,
 * v[i][1] C_NOEXISTS) or the keys of a list entry (v[i][0..k-1], then
 * C_NOEXISTS).
 */
typedef struct confd_hkeypath {
  int len;
  confd_value_t v[MAXDEPTH][MAXKEYLEN];
} confd_hkeypath_t;

struct confd_user_info;
struct confd_daemon_ctx;

/* What a transaction callback (here: a validation callback) is handed. */
struct confd_trans_ctx {
  int fd;                      /* worker socket of the daemon */
  int vfd;                     /* validation socket */
  struct confd_daemon_ctx *dx; /* daemon context */
  struct confd_user_info *uinfo;
  int mode;
  int dbname;
  int thandle;           /* transaction handle for MAAPI calls */
  void *t_opaque;        /* private data of transaction callbacks */
  void *vcb_opaque;      /* private data of the validation callback */
  char *validate_opaque; /* opaque string of the validation point */
  int secondary_index;
  int hide_inactive;
  void *internal; /* the data store's own bookkeeping */
};

/* Global state of the library. */
extern int confd_errno;

/* Text of the last error of this thread (the path or value it concerns). */
const char *confd_lasterr(void);

/* Renders v as text; returns the length it needed, or CONFD_ERR. A bare
 * C_ENUM_VALUE does not say which enumeration it belongs to: it prints as the
 * name the schema of the transaction this thread last called into gives the
 * value, when all enumerations of that schema agree on it, else as its
 * number. Keys in keypaths and values read from the store print by their
 * leaf's own type. */
int confd_pp_value(char *buf, int bufsiz, const confd_value_t *v);

/* Renders a keypath in path syntax; returns the length it needed. Keys print
 * by the types of their leaves in the schema of the transaction this thread
 * last called into. */
int confd_pp_kpath(char *buf, int bufsiz, const confd_hkeypath_t *hkeypath);

/*
 * Both release what a read duplicated into v (the buffer of a C_BUF or
 * C_BINARY value); for scalar values they release nothing. The store counts
 * duplicated values per transaction until they are released.
 */
void confd_free_dup_to_value(confd_value_t *v);
void confd_free_value(confd_value_t *v);

/* Sets the error text of a transaction under validation. */
void confd_trans_seterr(struct confd_trans_ctx *tctx, const char *fmt, ...)
    __attribute__((format(printf, 2, 3)));

#ifdef __cplusplus
}
#endif

#endif /* CONFD_LIB_H */
