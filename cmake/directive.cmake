# directive(FILE KEYWORD OUT): the words behind "// KEYWORD: " in a source, which tell the build what that
# program is made of.
# SPDX-License-Identifier: Apache-2.0
function(directive file keyword out)
  file(STRINGS ${file} lines REGEX "^// ${keyword}: ")
  string(REGEX REPLACE "(^|;)// ${keyword}: +" " " words "${lines}")
  separate_arguments(words)
  set(${out} ${words} PARENT_SCOPE)
endfunction()
