/* Export macro: the library is built with hidden visibility, and only the
 * functions marked YAX_EXPORT make up its interface. */
#ifndef YAX_EXPORT_H
#define YAX_EXPORT_H

#if defined(_WIN32)
#define YAX_EXPORT
#else
#define YAX_EXPORT __attribute__((visibility("default")))
#endif

#endif
