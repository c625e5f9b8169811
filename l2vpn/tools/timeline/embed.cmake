# Makes a source file of page.html with its style and its scripts in their places: what is before the data, and behind.
file(READ ${PAGE}/page.html page)
foreach(part style.css data.js places.js draw.js page.js)
    file(READ ${PAGE}/${part} content)
    string(REPLACE "/* ${part} */\n" "${content}" page "${page}")
endforeach()
string(FIND "${page}" "<!-- data -->\n" at)
string(SUBSTRING "${page}" 0 ${at} head)
math(EXPR at "${at} + 14")
string(SUBSTRING "${page}" ${at} -1 tail)

# A piece a line: compilers take no literal of any length.
set(source "#include \"timeline.h\"\n\nnamespace l2vpnctl {\n")
foreach(name head tail)
    file(WRITE ${OUTPUT}.${name} "${${name}}")
    file(READ ${OUTPUT}.${name} hex HEX)
    file(REMOVE ${OUTPUT}.${name})
    string(LENGTH "${hex}" length)
    math(EXPR length "${length} / 2")
    string(REGEX REPLACE "(..)" "'\\\\x\\1'," bytes "${hex}")
    string(APPEND source "static const char s_${name}[] = {${bytes}};\n"
        "const std::string_view page_${name}(s_${name}, ${length});\n")
endforeach()
file(WRITE ${OUTPUT} "${source}} // namespace l2vpnctl\n")
