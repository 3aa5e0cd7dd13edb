# zel.exe in a folder of its own with a log4cpp.properties beside it writes the
# file the configuration names, in its layout, at the priorities it sets.
file(REMOVE_RECURSE ${WORK})
file(MAKE_DIRECTORY ${WORK})
file(COPY ${PROGRAM} DESTINATION ${WORK})
file(WRITE ${WORK}/log4cpp.properties
"log4cpp.rootCategory=ERROR, file
log4cpp.category.ZEL.API=DEBUG
log4cpp.appender.file=org.apache.log4cpp.FileAppender
log4cpp.appender.file.fileName=zel.log
log4cpp.appender.file.layout=PatternLayout
log4cpp.appender.file.layout.ConversionPattern=%-6p|%c|%m%n
")
get_filename_component(name ${PROGRAM} NAME)
execute_process(COMMAND ${EMULATOR} ${WORK}/${name} determine --db ${DB} --scans ${SCANS}
    WORKING_DIRECTORY ${WORK} OUTPUT_QUIET RESULT_VARIABLE result)
if(NOT result EQUAL 0)
    message(FATAL_ERROR "zel determine failed: ${result}")
endif()
file(STRINGS ${WORK}/zel.log lines)
list(LENGTH lines count)
list(GET lines 0 first)
string(REPLACE "\\" "/" first "${first}")
if(NOT first MATCHES "^DEBUG \\|ZEL\\.API\\.LocalCompressedFileReader\\|Opening .*sample-city\\.zel for realm")
    message(FATAL_ERROR "unexpected first line: ${first}")
endif()
foreach(line IN LISTS lines)
    if(NOT line MATCHES "^(DEBUG |INFO  |WARN  |ERROR )\\|ZEL\\.API\\.")
        message(FATAL_ERROR "a line outside ZEL.API below ERROR, or not in the layout: ${line}")
    endif()
endforeach()
message(STATUS "${count} lines in the configured layout")
