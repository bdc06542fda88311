# Writes TARGET, a C++ source that holds the text of SOURCE as tools::kPage.
file(READ ${SOURCE} bytes HEX)
string(REGEX REPLACE "([0-9a-f][0-9a-f])" "\\\\x\\1" bytes "${bytes}")
# One literal a line: a compiler need not take long ones.
string(REGEX REPLACE "((\\\\x[0-9a-f][0-9a-f])(\\\\x[0-9a-f][0-9a-f])?(\\\\x[0-9a-f][0-9a-f])?(\\\\x[0-9a-f][0-9a-f])?)"
       "\"\\1\"\n" bytes "${bytes}")
file(WRITE ${TARGET} "#include \"tools/serve/page.h\"\n\nconst char tools::kPage[] =\n${bytes};\n")
