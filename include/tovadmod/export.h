#ifndef TOVADMOD_EXPORT_H_
#define TOVADMOD_EXPORT_H_

// Marks a symbol as part of libtovadmod's public interface.  Everything
// else is built with hidden visibility.
#define TOVAD_EXPORT __attribute__((visibility("default")))

#endif  // TOVADMOD_EXPORT_H_
