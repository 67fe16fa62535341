# Writes the console's files (DIR/*.html, *.css, *.js) into OUTPUT, a C++
# source defining ConsolePage::kFiles. Run by the build whenever one changes:
#   cmake -DDIR=... -DOUTPUT=... -P Embed.cmake
file(GLOB files ${DIR}/*.html ${DIR}/*.css ${DIR}/*.js)
list(SORT files)
set(arrays "")
set(entries "")
set(count 0)
foreach(path ${files})
  get_filename_component(name ${path} NAME)
  get_filename_component(extension ${path} LAST_EXT)
  if(extension STREQUAL ".html")
    set(type "text/html; charset=utf-8")
  elseif(extension STREQUAL ".css")
    set(type "text/css; charset=utf-8")
  else()
    set(type "application/javascript; charset=utf-8")
  endif()
  file(READ ${path} hex HEX)
  file(SIZE ${path} size)
  string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," hex "${hex}")
  # Sixteen bytes a line (CMake's expressions have no counted repeat).
  string(REPEAT "0x[0-9a-f][0-9a-f]," 16 line)
  string(REGEX REPLACE "(${line})" "\\1\n" hex "${hex}")
  string(APPEND arrays "const unsigned char kFile${count}[] = {\n${hex}0};\n\n")
  string(APPEND entries "    {\"${name}\", \"${type}\", kFile${count}, ${size}},\n")
  math(EXPR count "${count} + 1")
endforeach()
file(WRITE ${OUTPUT}
  "// Written by tools/cloud/console/Embed.cmake from tools/cloud/console/.\n"
  "#include \"tools/cloud/ConsolePage.h\"\n\n"
  "namespace ZelCloud {\n\nnamespace {\n\n${arrays}}  // namespace\n\n"
  "const ConsolePage::File ConsolePage::kFiles[] = {\n${entries}};\n"
  "const size_t ConsolePage::kCount = ${count};\n\n"
  "}  // namespace ZelCloud\n")
