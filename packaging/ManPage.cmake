# Makes the server's manual page from its --help text, so the two never disagree:
#   cmake -DSERVER=<binary> -DOUTPUT=<page.8.gz> -DVERSION=<version> -P ManPage.cmake
execute_process(COMMAND ${SERVER} --help OUTPUT_VARIABLE help RESULT_VARIABLE status)
if(NOT status EQUAL 0)
    message(FATAL_ERROR "${SERVER} --help failed: ${status}")
endif()
# roff reads a backslash as an escape and a leading dot or quote as a request.
string(REPLACE "\\" "\\e" help "${help}")
string(REGEX REPLACE "(^|\n)([.'])" "\\1\\\\&\\2" help "${help}")
set(page ".TH KESTRIN-UPLOAD-SERVER 8 \"\" \"kestrin-upload ${VERSION}\" \"System Administration\"
.SH NAME
kestrin-upload-server \\- HTTP server that stores files uploaded as multipart/form-data
.SH SYNOPSIS
.B kestrin-upload-server
[\\fIOPTION\\fR...]
.SH DESCRIPTION
The text of \\fB--help\\fR:
.PP
.nf
${help}.fi
.SH FILES
.TP
.I /etc/kestrin-upload/kestrin-upload.conf
settings of the service, every one commented out with its default
.TP
.I /var/lib/kestrin-upload
the service's upload directory
.SH SEE ALSO
.BR systemctl (1),
.BR haproxy (1),
/usr/share/doc/kestrin-upload/README.md
")
get_filename_component(directory ${OUTPUT} DIRECTORY)
get_filename_component(name ${OUTPUT} NAME_WLE)
file(WRITE ${directory}/${name} "${page}")
file(ARCHIVE_CREATE OUTPUT ${OUTPUT} PATHS ${directory}/${name} FORMAT raw COMPRESSION GZip)
