// Prepares the file descriptors of a run.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_DESCRIPTORS_HPP
#define SCRUB_DESCRIPTORS_HPP

namespace scrub {

// Opens something harmless on each standard descriptor that is closed. Else the next file that is
// opened would take its number, and prints would go into that file. Prints still fail.
void keep_standard_descriptors();

// Raises the limit of open files, if allowed, to the directories of the longest path: a walk holds
// them open.
void raise_descriptor_limit();

} // namespace scrub

#endif
