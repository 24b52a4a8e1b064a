/* TELVO_API marks what the library exports: the shared library is built
 * with hidden symbols by default, and only the marked classes and functions
 * are visible to programs that link it. */
#ifndef TELVO_EXPORT_H
#define TELVO_EXPORT_H

#if defined(__GNUC__) || defined(__clang__)
#define TELVO_API __attribute__((visibility("default")))
#else
#define TELVO_API
#endif

#endif /* TELVO_EXPORT_H */
