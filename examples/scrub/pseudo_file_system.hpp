// Recognizes file systems whose files are not data, such as proc.
// SPDX-License-Identifier: Apache-2.0
#ifndef SCRUB_PSEUDO_FILE_SYSTEM_HPP
#define SCRUB_PSEUDO_FILE_SYSTEM_HPP

namespace scrub {

// Returns the name of the file system that holds an open file, or a null pointer if its files may
// be data. The descriptor may be one with O_PATH.
const char *pseudo_file_system(int fd);

} // namespace scrub

#endif
