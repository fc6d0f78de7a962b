// Prepares the file descriptors of a run.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_DESCRIPTORS_HPP
#define SCRUB_DESCRIPTORS_HPP

namespace scrub {

// Opens /dev/null for reading on each standard descriptor that is closed. Otherwise the next file
// to be opened would get its number, and output would go into that file. Output still fails.
void keep_standard_descriptors();

// Raises the limit of open files, if allowed, because batches of files that wait to be read hold
// their directories open.
void raise_descriptor_limit();

} // namespace scrub

#endif
