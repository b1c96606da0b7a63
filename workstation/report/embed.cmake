# Writes files as constants into a source: cmake -DOUTPUT=file.cpp "-DINPUTS=page.html|page.css" -P embed.cmake

set(text "#include \"workstation/report/page_parts.h\"\n\nnamespace qel::vexa::report {\n")
string(REPLACE "|" ";" INPUTS "${INPUTS}")
foreach(input IN LISTS INPUTS)
    cmake_path(GET input FILENAME name)
    string(REPLACE "." "_" name ${name})
    file(READ ${input} bytes HEX)
    string(REGEX REPLACE "(..)" "'\\\\x\\1'," bytes "${bytes}")
    string(APPEND text "\nstatic constexpr char ${name}_bytes[] = {${bytes}};\n"
        "constexpr std::string_view ${name}(${name}_bytes, sizeof ${name}_bytes);\n")
endforeach()
file(WRITE ${OUTPUT} "${text}\n}  // namespace qel::vexa::report\n")
