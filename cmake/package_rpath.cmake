# SPDX-License-Identifier: Apache-2.0
# Run by cpack when the files of the packages lie ready: the loader looks in /usr/lib anyway.
file(RPATH_REMOVE FILE "${CPACK_TEMPORARY_DIRECTORY}/tools/usr/bin/kestrel")
