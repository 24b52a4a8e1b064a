/* TELVO_API marks what the library exports: the shared library is built
 * with hidden symbols by default, and only the marked classes and functions
 * are visible to programs that link it. TELVO_LOCAL hides what an exported
 * class holds privately (its implementation record). */
#ifndef TELVO_EXPORT_H
#define TELVO_EXPORT_H

#if defined(__GNUC__) || defined(__clang__)
#define TELVO_API __attribute__((visibility("default")))
#define TELVO_LOCAL __attribute__((visibility("hidden")))
#else
#define TELVO_API
#define TELVO_LOCAL
#endif

#endif /* TELVO_EXPORT_H */
