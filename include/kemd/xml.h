/* XML documents in C: read into a tree, looked up, changed and written. Handles are opaque; no C++
 * type crosses this interface.
 *
 * Any thread may call, with handles of its own; a document may be read by several at once while
 * none changes it. Nothing throws. Functions that return `int` return 0 on success and otherwise an
 * errno number; EBADMSG says that a document is refused, and KemdXmlParserError why. All texts are
 * UTF-8 and end with a NUL; those that are returned are valid until the document is changed or
 * released. Structures begin with `size`, which the caller sets to sizeof of what it has.
 *
 * External entities and document types are never fetched. docs/xml.md has the rules.
 */
#pragma once

#include <stddef.h>
#include <stdint.h>

#include "kemd/api.h"

#ifdef __cplusplus
extern "C" {
#endif

struct KemdXmlParser;
struct KemdXmlDocument;

/* An element, an attribute, a text ... of a document; it remains valid until it is removed. */
typedef uint32_t KemdXmlNode;
#define KEMD_XML_NONE 0u
/* The document itself: its children are the root element and what stands before and after it. */
#define KEMD_XML_DOCUMENT_NODE 1u

#define KEMD_XML_DOCUMENT 0u
#define KEMD_XML_ELEMENT 1u
#define KEMD_XML_TEXT 2u
#define KEMD_XML_CDATA 3u
#define KEMD_XML_COMMENT 4u
#define KEMD_XML_INSTRUCTION 5u
#define KEMD_XML_ATTRIBUTE 6u
#define KEMD_XML_NAMESPACE 7u /* a declaration: an attribute xmlns or xmlns:prefix */

/* Limits of a parser; the default is in parentheses. 0 as a value: none. */
#define KEMD_XML_LIMIT_SIZE 0u       /* bytes of the document (256 MiB) */
#define KEMD_XML_LIMIT_DEPTH 1u      /* elements within each other (1000) */
#define KEMD_XML_LIMIT_NODES 2u      /* all nodes with attributes (16777216) */
#define KEMD_XML_LIMIT_ATTRIBUTES 3u /* of an element, those from the document type too (4096) */
#define KEMD_XML_LIMIT_NAME 4u       /* bytes of a name (1024) */
#define KEMD_XML_LIMIT_EXPANSION 5u  /* bytes that entities and defaults add (1 MiB) */

KEMD_API int KemdXmlParserOpen(struct KemdXmlParser** parser);
/* Null does nothing. Documents stay. */
KEMD_API void KemdXmlParserClose(struct KemdXmlParser* parser);
/* Before the first byte, as the next. EINVAL: there is no such limit. */
KEMD_API int KemdXmlParserSetLimit(struct KemdXmlParser* parser, uint32_t limit, uint64_t value);
/* What the document is encoded in, whatever it declares: a name or the number of a code page.
 * ENOENT: nobody knows it. ENOTSUP: it has a name, but the C library does not convert it here. */
KEMD_API int KemdXmlParserSetEncoding(struct KemdXmlParser* parser, const char* encoding);
/* The next piece, of any length. */
KEMD_API int KemdXmlParserFeed(struct KemdXmlParser* parser, const void* bytes, size_t size);
/* The end: the document, which the caller releases. The parser is then ready for another one, with
 * the same limits and encoding. */
KEMD_API int KemdXmlParserFinish(struct KemdXmlParser* parser, struct KemdXmlDocument** document);
/* The end in one: a whole document in memory, faster than in pieces, or the rest of one. */
KEMD_API int KemdXmlParserParse(struct KemdXmlParser* parser, const void* bytes, size_t size,
                                struct KemdXmlDocument** document);
/* A whole regular file. An errno number of the file; KemdXmlParserError has its text as well. */
KEMD_API int KemdXmlParserReadFile(struct KemdXmlParser* parser, const char* path,
                                   struct KemdXmlDocument** document);
/* With the defaults. */
KEMD_API int KemdXmlParse(const void* bytes, size_t size, struct KemdXmlDocument** document);

#define KEMD_XML_CAUSE_NONE 0u
#define KEMD_XML_CAUSE_SYNTAX 1u    /* not well-formed */
#define KEMD_XML_CAUSE_NAMESPACE 2u /* well-formed, but its names are not */
#define KEMD_XML_CAUSE_ENTITY 3u    /* one that is not declared in the document */
#define KEMD_XML_CAUSE_ENCODING                                      \
    4u /* bytes that the encoding does not have, or no such encoding \
        */
#define KEMD_XML_CAUSE_LIMIT 5u
#define KEMD_XML_CAUSE_SYSTEM 6u /* memory, a file */

struct KemdXmlError {
    uint32_t size;
    uint32_t cause;    /* KEMD_XML_CAUSE_ */
    uint64_t line;     /* from 1 on; 0: no place in the document */
    uint64_t column;   /* characters, from 1 on */
    uint64_t offset;   /* bytes before it, in the document as it came */
    uint32_t limit;    /* KEMD_XML_LIMIT_, with KEMD_XML_CAUSE_LIMIT */
    uint32_t mark;     /* characters of `excerpt` before the place */
    char text[200];    /* as for a user */
    char excerpt[400]; /* of the line; empty when there is no place */
};
/* Why the last document was refused. */
KEMD_API int KemdXmlParserError(const struct KemdXmlParser* parser, struct KemdXmlError* error);

/* A document with this root element alone. */
KEMD_API int KemdXmlCreate(const char* root, struct KemdXmlDocument** document);
/* Null does nothing. */
KEMD_API void KemdXmlRelease(struct KemdXmlDocument* document);

#define KEMD_XML_FROM_DEFAULT 0u     /* nothing said so: UTF-8 */
#define KEMD_XML_FROM_CALLER 1u      /* KemdXmlParserSetEncoding */
#define KEMD_XML_FROM_MARK 2u        /* a byte order mark */
#define KEMD_XML_FROM_DECLARATION 3u /* encoding="..." */
#define KEMD_XML_FROM_PATTERN 4u     /* how "<?" or "<" is encoded */

struct KemdXmlInfo {
    uint32_t size;
    uint32_t encodingFrom; /* KEMD_XML_FROM_ */
    const char* encoding;  /* as IANA names it */
    const char* declared;  /* encoding="...", empty: none */
    const char* version;   /* "1.0" also without a declaration */
    int32_t standalone;    /* 1 yes, 0 no, -1 not said */
    uint32_t depth;        /* of the deepest element */
    uint64_t bytes;        /* of the document */
    uint64_t nodes, attributes;
    uint64_t memory;          /* bytes of the tree */
    const char* documentType; /* "<!DOCTYPE ...>" as it stood there; empty: none */
};
KEMD_API int KemdXmlGetInfo(const struct KemdXmlDocument* document, struct KemdXmlInfo* info);

/* KEMD_XML_NONE where there is none. The children of an element do not include its attributes;
 * KemdXmlNext and KemdXmlPrevious lead from one attribute to another, declarations of name spaces
 * included. */
KEMD_API KemdXmlNode KemdXmlRoot(const struct KemdXmlDocument* document);
KEMD_API KemdXmlNode KemdXmlParent(const struct KemdXmlDocument* document, KemdXmlNode node);
KEMD_API KemdXmlNode KemdXmlFirst(const struct KemdXmlDocument* document, KemdXmlNode node);
KEMD_API KemdXmlNode KemdXmlLast(const struct KemdXmlDocument* document, KemdXmlNode node);
KEMD_API KemdXmlNode KemdXmlNext(const struct KemdXmlDocument* document, KemdXmlNode node);
KEMD_API KemdXmlNode KemdXmlPrevious(const struct KemdXmlDocument* document, KemdXmlNode node);
KEMD_API KemdXmlNode KemdXmlFirstAttribute(const struct KemdXmlDocument* document,
                                           KemdXmlNode element);
/* By its name as it is written, "a" or "p:a". */
KEMD_API KemdXmlNode KemdXmlFindAttribute(const struct KemdXmlDocument* document,
                                          KemdXmlNode element, const char* name);

/* KEMD_XML_ELEMENT ...; KEMD_XML_DOCUMENT also for what is no node. */
KEMD_API uint32_t KemdXmlKind(const struct KemdXmlDocument* document, KemdXmlNode node);
/* As it is written, with its prefix; of an instruction its target. Empty: it has none. */
KEMD_API const char* KemdXmlName(const struct KemdXmlDocument* document, KemdXmlNode node);
/* Without the prefix. */
KEMD_API const char* KemdXmlLocalName(const struct KemdXmlDocument* document, KemdXmlNode node);
/* The URI; empty: in none. */
KEMD_API const char* KemdXmlNameSpace(const struct KemdXmlDocument* document, KemdXmlNode node);
/* Of a text, CDATA section, comment, instruction or attribute; empty for others. */
KEMD_API const char* KemdXmlText(const struct KemdXmlDocument* document, KemdXmlNode node);
/* All text within an element. ERANGE as in kemd/network.h. */
KEMD_API int KemdXmlContent(const struct KemdXmlDocument* document, KemdXmlNode node, char* out,
                            size_t* size);
/* Where it began in the document, from 1 on; 0 for what was added later. */
KEMD_API uint32_t KemdXmlLine(const struct KemdXmlDocument* document, KemdXmlNode node);
KEMD_API uint32_t KemdXmlColumn(const struct KemdXmlDocument* document, KemdXmlNode node);

/* Changes. EINVAL: XML forbids the name, a character, or this kind of node in this place; the
 * prefix of a name is not declared there. The document is then as it was. What is removed takes
 * memory until the document is released.
 *
 * A new child of `parent`, before its child `before`; KEMD_XML_NONE: after the last one. `name` is
 * for elements and instructions, `text` for all but elements; null is empty. */
KEMD_API int KemdXmlAdd(struct KemdXmlDocument* document, KemdXmlNode parent, KemdXmlNode before,
                        uint32_t kind, const char* name, const char* text, KemdXmlNode* node);
/* Sets or adds it. "xmlns" and "xmlns:p" declare name spaces. `value` null: removes it. */
KEMD_API int KemdXmlSetAttribute(struct KemdXmlDocument* document, KemdXmlNode element,
                                 const char* name, const char* value);
/* Of a text, CDATA section, comment, instruction or attribute; an element gets this text as its
 * only child. */
KEMD_API int KemdXmlSetText(struct KemdXmlDocument* document, KemdXmlNode node, const char* text);
KEMD_API int KemdXmlRename(struct KemdXmlDocument* document, KemdXmlNode element, const char* name);
/* With all that is in it. Not the root element: EINVAL. */
KEMD_API int KemdXmlRemove(struct KemdXmlDocument* document, KemdXmlNode node);

/* Look-up by path: a subset of XPath 1.0, see docs/xml.md. */
struct KemdXmlFound;
/* All nodes that `path` leads to from `context`, in the order of the document; none is no error.
 * `nameSpaces`: pairs of prefix and URI, then a null; null: the prefixes that are declared at
 * `context`. EINVAL: not a path of this subset, or an unknown prefix; `*position` is where, in
 * bytes. It may be null. */
KEMD_API int KemdXmlFind(const struct KemdXmlDocument* document, KemdXmlNode context,
                         const char* path, const char* const* nameSpaces,
                         struct KemdXmlFound** found, size_t* position);
/* KEMD_XML_NONE after the last. */
KEMD_API KemdXmlNode KemdXmlFoundAt(const struct KemdXmlFound* found, size_t position);
KEMD_API size_t KemdXmlFoundCount(const struct KemdXmlFound* found);
KEMD_API void KemdXmlFoundRelease(struct KemdXmlFound* found);

#define KEMD_XML_COMPACT 0u        /* nothing is added */
#define KEMD_XML_PRETTY 1u         /* a line for each element that is not among text */
#define KEMD_XML_CANONICAL 2u      /* C14N 1.0 */
#define KEMD_XML_EXCLUSIVE 3u      /* exclusive C14N 1.0 */
#define KEMD_XML_WITH_COMMENTS 1u  /* canonical: comments stay */
#define KEMD_XML_NO_DECLARATION 2u /* not canonical: without "<?xml ...?>" */

struct KemdXmlWriteOptions {
    uint32_t size;
    uint32_t form;        /* KEMD_XML_COMPACT ... */
    uint32_t flags;       /* KEMD_XML_WITH_COMMENTS ... */
    uint32_t indent;      /* pretty: blanks for each level */
    const char* encoding; /* a name or number; null: UTF-8, which canonical forms always are */
    /* Exclusive: prefixes whose declarations are kept as in the canonical form, with blanks between
     * them, "#default" for that without a prefix: PrefixList of InclusiveNamespaces. Null: none. */
    const char* inclusivePrefixes;
};
/* Takes the next piece; what it returns, unless 0, ends the writing and is its result. */
typedef int (*KemdXmlSink)(void* user, const char* bytes, size_t size);
/* `node`: the document or an element with all that is in it. `options` null: compact UTF-8. EILSEQ:
 * the encoding lacks a character of a name, comment, instruction or document type, where no
 * reference can stand. EINVAL: a canonical form of relative name spaces, or of an unknown
 * encoding. */
KEMD_API int KemdXmlWrite(const struct KemdXmlDocument* document, KemdXmlNode node,
                          const struct KemdXmlWriteOptions* options, KemdXmlSink sink, void* user);
/* The file is replaced whole or not at all; its permissions stay, a new one has those of the
 * umask. */
KEMD_API int KemdXmlWriteFile(const struct KemdXmlDocument* document,
                              const struct KemdXmlWriteOptions* options, const char* path);

/* Names of encodings, compared without regard to case, blanks, '-' and '_'. */
#define KEMD_ENCODING_NO_NUMBER 0u
struct KemdEncoding {
    uint32_t size;
    uint32_t codePage;    /* as Windows numbers it, or KEMD_ENCODING_NO_NUMBER */
    const char* name;     /* preferred IANA name; of what IANA does not list, Windows' name */
    uint32_t aliasCount;  /* KemdEncodingAlias */
    uint32_t isSupported; /* 1: documents of this encoding are read and written here */
};
/* By a name, an alias or the number of a code page in decimal. ENOENT. */
KEMD_API int KemdEncodingFind(const char* name, struct KemdEncoding* encoding);
KEMD_API int KemdEncodingFindCodePage(uint32_t codePage, struct KemdEncoding* encoding);
/* All of them; ENOENT after the last. */
KEMD_API int KemdEncodingAt(size_t position, struct KemdEncoding* encoding);
/* Another name of it; ENOENT after the last. */
KEMD_API int KemdEncodingAlias(const char* name, size_t position, char* out, size_t* size);

#ifdef __cplusplus
}
#endif
