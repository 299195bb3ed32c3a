# SPDX-License-Identifier: Apache-2.0
# Read by cpack before it makes the packages.
set(SHLIBDEPS_EXECUTABLE ${CPACK_KESTREL_SHLIBDEPS})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "") # each package has its own
