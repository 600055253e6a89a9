/* Names of functions as the linker sees them, to wrap those that take a size: the letter of size_t in them is
 * another where it has 32 bits. */
#ifndef COMMON_MANGLED_H
#define COMMON_MANGLED_H

#ifdef __LP64__
#define MANGLED_SIZE m
#else
#define MANGLED_SIZE j
#endif

#define MANGLED_JOINED(before, letter, after) before##letter##after
#define MANGLED_WITH(before, letter, after)   MANGLED_JOINED(before, letter, after)
#define MANGLED(before, after)                MANGLED_WITH(before, MANGLED_SIZE, after)

#define MANGLED_NAMED(name) #name
#define MANGLED_TEXT(name)  MANGLED_NAMED(name)

#endif
