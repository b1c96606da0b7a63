# Puts the page's script together: cmake -DOUTPUT=page.js "-DMODULES=format.js|start.js" -P bundle.cmake
#
# The modules come in an order in which each finds what it needs when it is run, and share one scope: no name stands at
# the top of two of them.

cmake_minimum_required(VERSION 3.25)

set(names "")
set(text "\"use strict\";\n(() => {\n")
string(REPLACE "|" ";" MODULES "${MODULES}")
foreach(module IN LISTS MODULES)
    file(READ ${module} body)
    string(REGEX REPLACE "(^|\n)import [^;]*;" "\\1" body "${body}")
    string(REGEX REPLACE "(^|\n)export " "\\1" body "${body}")
    string(APPEND text "${body}")
    string(REGEX MATCHALL "\n(async )?(const|let|function|function\\*|class) [A-Za-z]+" found "${body}")
    list(TRANSFORM found REPLACE "^.* " "")
    foreach(name IN LISTS found)
        if(name IN_LIST names)
            message(FATAL_ERROR "${module}: another module has the name ${name} too")
        endif()
    endforeach()
    list(APPEND names ${found})
endforeach()
file(WRITE ${OUTPUT} "${text}})();\n")
