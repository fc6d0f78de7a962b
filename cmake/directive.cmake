# directive(FILE KEYWORD OUT): sets OUT to the words after "// KEYWORD: " in a source. They tell the build
# how to link that program.
# SPDX-License-Identifier: Apache-2.0
function(directive file keyword out)
  file(STRINGS ${file} lines REGEX "^// ${keyword}: ")
  string(REGEX REPLACE "(^|;)// ${keyword}: +" " " words "${lines}")
  separate_arguments(words)
  set(${out} ${words} PARENT_SCOPE)
endfunction()
