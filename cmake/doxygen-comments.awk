# doxygen-comments.awk - doxygen input filter for the public headers.
#
# The headers are documented with plain // comments: a block above each
# declaration, a trailing comment after a member, and a block at the top of
# the file about the whole header. This filter turns them into doxygen
# comments without changing the line count, so warnings point at the right
# lines:
#   - the top block becomes the file's documentation ("\file" is appended to
#     its last line);
#   - a block above a declaration becomes "///" documentation;
#   - a trailing comment after ";", "," an inline body "{ ... }" or on a
#     #define becomes "///<", and so do lines that continue it in the same
#     column;
#   - the class a header is named after (class DnUtil in DnUtil.h) gets the
#     top block's text too, unless a comment of its own stands above it;
#   - comment lines indented by three or more blanks (examples such as
#     "//   \"A=1\" -> \"\"") are kept verbatim, in a C-style block of their
#     own ("/** \verbatim" ... "\endverbatim */"): doxygen keeps the "///" of
#     every line after the first inside a verbatim section of a "///" block,
#     so the rendered example would show them;
#   - "// --- section ---" rulers stay plain comments;
#   - everywhere else the characters doxygen would read as commands or
#     markup (\ @ < > & # % $, and * that Markdown would read as emphasis)
#     are escaped outside double quotes (doxygen takes quoted text
#     literally) and outside `code spans` (Markdown shows them as code, as
#     written), so the text appears as written.
# Works with any POSIX awk (mawk included).

# Doxygen reads text between double quotes literally, so only the text
# outside quotes is escaped. Like doxygen, a quote left open at the end of a
# line stays open on the next line of the same comment.
function escape(text,    out, i, c) {
  out = ""
  for (i = 1; i <= length(text); i++) {
    c = substr(text, i, 1)
    if (c == "`" && !quoted) code = !code
    else if (code) { }
    else if (c == "\"") quoted = !quoted
    else if (!quoted && index("\\@<>&#%$*", c) > 0) out = out "\\"
    out = out c
  }
  return out
}

# Emits the line held back, closing a verbatim group if this line ends it.
function flush(closeVerbatim) {
  if (!haveHeld) return
  print held (closeVerbatim ? " \\endverbatim */" : "")
  haveHeld = 0
}

function emit(line) {
  if (line !~ /^[ \t]*\/\/\/ /) { quoted = 0; code = 0 }
  flush(0)
  held = line
  haveHeld = 1
  emitted++
  lastWasComment = (line ~ /^[ \t]*\/\/\//)
}

BEGIN { quoted = 0; code = 0; atTop = 1; inVerbatim = 0; trailingColumn = 0; haveHeld = 0; emitted = 0; lastWasComment = 0 }

FNR == 1 {
  baseName = FILENAME
  sub(/^.*\//, "", baseName)
  sub(/\.h$/, "", baseName)
}

{
  line = $0
  commentOnly = match(line, /^[ \t]*\/\//)
  if (commentOnly && substr(line, RSTART + RLENGTH, 1) == "/") commentOnly = 0  # already "///"

  if (commentOnly) {
    column = RLENGTH - 2
    indent = substr(line, 1, column)
    text = substr(line, RSTART + RLENGTH)
    isExample = (text ~ /^    / || (text ~ /^   [^ ]/))
    if (text ~ /^ ---/) {               # section ruler: not documentation
      if (inVerbatim) { flush(1); inVerbatim = 0 }
      emit(line)
      trailingColumn = 0
      next
    }
    marker = "///"
    if (trailingColumn > 0 && column == trailingColumn) marker = "///<"
    else trailingColumn = 0
    if (isExample && !atTop && index(text, "*/") == 0) {
      if (!inVerbatim) { emit(indent "/** \\verbatim" text); inVerbatim = 1 }
      # doxygen cuts the later lines at the column where the first line's
      # text starts ("/** " is four characters wide) and the first line's
      # own leading blanks; line them up under it.
      else emit(indent "    " substr(text, 4))
      next
    }
    if (inVerbatim) { flush(1); inVerbatim = 0 }
    emit(indent marker escape(text))
    next
  }

  # Not a comment-only line: a verbatim group ends here.
  if (inVerbatim) { flush(1); inVerbatim = 0 }
  if (atTop) {
    atTop = 0
    # The last line of the file's top block carries "\file".
    if (emitted > 0 && haveHeld) held = held " \\file"
  }

  trailingColumn = 0
  # The class a header is named after is described by the header's top
  # block; give the class that text too unless it has a comment of its own.
  if (!lastWasComment && line ~ ("^(class|struct) ([A-Z_]+(\\([^)]*\\))? )*" baseName "( |$)")) {
    emit("/** \\copydoc " baseName ".h */ " line)
    lastWasComment = 0
    next
  }
  position = index(line, "//")
  if (position > 0 && (line !~ /^[ \t]*#/ || line ~ /^#define /)) {
    code = substr(line, 1, position - 1)
    comment = substr(line, position + 2)
    if ((code ~ /[;,][ \t]*$/ || code ~ /[^ \t}].*}[ \t]*$/ || code ~ /^#define /) && code !~ /^[ \t]*};?[ \t]*$/ &&
        substr(comment, 1, 1) != "/") {
      emit(code "///<" escape(comment))
      trailingColumn = position - 1
      next
    }
  }
  emit(line)
}

END { flush(inVerbatim) }
