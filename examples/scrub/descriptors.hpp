// The file descriptors that a run starts with.
#ifndef SCRUB_DESCRIPTORS_HPP
#define SCRUB_DESCRIPTORS_HPP

namespace scrub {

// Takes the place of a closed standard descriptor, ahead of the next file that is opened: what is
// printed would go into that file. Printing to it fails as before.
void keep_standard_descriptors();

// As many as the longest path has directories, which a walk holds open, where that is allowed.
void raise_descriptor_limit();

} // namespace scrub

#endif
