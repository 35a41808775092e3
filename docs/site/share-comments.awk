# In the headers one comment may stand over several declarations in a row, above all over overloads.
# Doxygen knows only the first: so each that follows without a blank line gets the comment again, on
# its own line, which keeps the line numbers.
/^ *\/\/\// {
    text = $0
    sub(/^ *\/\/\/ ?/, "", text)
    comment = (ended ? "" : comment " ") text
    ended = 0
    print
    next
}
/^ *$/ || /^ *[{}]/ || /^ *\/\// || /^[a-z]+:/ || /^#/ { comment = ""; ended = 0; print; next }
ended && comment != "" { print "/** " comment " */ " $0; ended = /; *$/; next }
{ ended = /; *$/; print }
