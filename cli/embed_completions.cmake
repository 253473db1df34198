# Writes OUT, a C++ source holding the three completion scripts as strings,
# so that `quendralctl completion SHELL` prints exactly the installed files.
file(READ ${BASH} bash)
file(READ ${ZSH} zsh)
file(READ ${FISH} fish)
file(WRITE ${OUT} "// Generated from cli/completion; do not edit.\n"
  "#include \"Commands.h\"\n"
  "namespace quendralctl {\n"
  "const char *const kBashCompletion = R\"QMCOMPLETION(${bash})QMCOMPLETION\";\n"
  "const char *const kZshCompletion = R\"QMCOMPLETION(${zsh})QMCOMPLETION\";\n"
  "const char *const kFishCompletion = R\"QMCOMPLETION(${fish})QMCOMPLETION\";\n"
  "} // namespace quendralctl\n")
