# Writes TARGET, a C++ source that holds the files of FOLDER that NAMES lists, separated by commas, as tools::PageFiles().
string(REPLACE "," ";" names "${NAMES}")
set(texts "")
set(table "")
foreach(name IN LISTS names)
  file(READ ${FOLDER}/${name} bytes HEX)
  string(REGEX REPLACE "([0-9a-f][0-9a-f])" "\\\\x\\1" bytes "${bytes}")
  # One literal a line: a compiler need not take long ones.
  string(REGEX REPLACE "((\\\\x[0-9a-f][0-9a-f])(\\\\x[0-9a-f][0-9a-f])?(\\\\x[0-9a-f][0-9a-f])?(\\\\x[0-9a-f][0-9a-f])?)"
         "\"\\1\"\n" bytes "${bytes}")
  string(MAKE_C_IDENTIFIER "k_${name}" constant)
  string(APPEND texts "constexpr char ${constant}[] =\n${bytes};\n")
  string(APPEND table "    {\"${name}\", {${constant}, sizeof ${constant} - 1}},\n")
endforeach()
file(WRITE ${TARGET} "#include \"tools/serve/page_files.h\"\n\nnamespace {\n\n${texts}\n"
     "constexpr tools::PageFile kFiles[] = {\n${table}};\n\n}  // namespace\n\n"
     "std::span<const tools::PageFile> tools::PageFiles() {\n  return kFiles;\n}\n")
