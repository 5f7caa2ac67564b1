# Writes a C++ file that holds the files of the engine's page.
#
#   cmake -DOUTPUT=file.cpp -DDIRECTORY=directory -P EmbedPage.cmake PATH:MEDIA-TYPE...
#     PATH is a file of the directory; index.html becomes "/".  Of programs, comment lines and
#     indentation are left out, and every line keeps its number.  The text depends on nothing but
#     the files.

set(arrays "")
set(table "")
set(count 0)
math(EXPR last "${CMAKE_ARGC} - 1")
foreach(i RANGE ${last})
  if(NOT CMAKE_ARGV${i} MATCHES "^([a-z.]+):(.+)$")
    continue()
  endif()
  set(name ${CMAKE_MATCH_1})
  set(media_type ${CMAKE_MATCH_2})
  file(READ ${DIRECTORY}/${name} text)
  if(name MATCHES "\\.js$")
    string(REGEX REPLACE "\n +" "\n" text "\n${text}")
    string(REGEX REPLACE "\n//[^\n]*" "\n" text "${text}")
    string(SUBSTRING "${text}" 1 -1 text)
  endif()
  string(HEX "${text}" bytes)
  string(LENGTH "${bytes}" digits)
  math(EXPR size "${digits} / 2")
  string(REGEX REPLACE "(..)" "'\\\\x\\1'," bytes "${bytes}")
  set(path "/${name}")
  if(name STREQUAL "index.html")
    set(path "/")
  endif()
  string(APPEND arrays "constexpr char CONTENT_${count}[] = {\n${bytes}};\n")
  string(APPEND table
         "    {\"${path}\", \"${media_type}\", std::string_view(CONTENT_${count}, ${size})},\n")
  math(EXPR count "${count} + 1")
endforeach()
file(WRITE ${OUTPUT} "#include \"page/PageFiles.h\"\n\nnamespace armengine {\n\nnamespace {\n\n${arrays}\n"
  "constexpr PageFile FILES[] = {\n${table}};\n\n}  // namespace\n\n"
  "PageFiles pageFiles() {\n  return {FILES, ${count}};\n}\n\n}  // namespace armengine\n")
