# Makes the manual page kavori-host(1) from README.md, so that the two never
# disagree: the README's first paragraph is the description, and its
# sections "Command line" (the option table among them) and "Calling the
# host" follow as they stand.  The Markdown the README uses there:
# paragraphs, tables, "- " lists, indented code, `code`, **bold** and
# [links](...).  Run at build time:
#     awk -v version=1.0.0 -f manpage.awk README.md > kavori-host.1

# Every occurrence of from in text replaced by to (no patterns: the same
# result in every awk).
function swap(text, from, to,    out, i) {
    out = ""
    while ((i = index(text, from)) > 0) {
        out = out substr(text, 1, i - 1) to
        text = substr(text, i + length(from))
    }
    return out text
}

# Marks that are not roff's own, as escapes.
function escape(text) {
    text = swap(text, "\\", "\\e")
    text = swap(text, "\342\200\224", "\\(em")
    return swap(text, "\303\227", "\\(mu")
}

# Prose: Markdown's \| is a plain bar, **bold** and `code` are bold (code
# with real minus signs), a link is its text.
function inline(text,    out, i, j, k) {
    text = escape(swap(text, "\\|", "|"))
    while ((i = index(text, "**")) > 0 && (j = index(substr(text, i + 2), "**")) > 0)
        text = substr(text, 1, i - 1) "\\fB" substr(text, i + 2, j - 1) "\\fP" substr(text, i + j + 3)
    while ((i = index(text, "](")) > 0 && (j = index(substr(text, i), ")")) > 0) {
        out = substr(text, 1, i - 1)
        if (!(k = match(out, /\[[^[]*$/))) break
        text = substr(out, 1, k - 1) substr(out, k + 1) substr(text, i + j)
    }
    out = ""
    while ((i = index(text, "`")) > 0 && (j = index(substr(text, i + 1), "`")) > 0) {
        out = out substr(text, 1, i - 1) "\\fB" swap(substr(text, i + 1, j - 1), "-", "\\-") "\\fP"
        text = substr(text, i + j + 1)
    }
    return out text
}

# One output line; a leading dot or quote would be read as a request.
function put(text) {
    if (text ~ /^[.']/) text = "\\&" text
    print text
}

function cells(row, into,    n, i) {
    row = swap(row, "\\|", "\001")
    sub(/^ *\| */, "", row)
    sub(/ *\| *$/, "", row)
    n = split(row, into, / *\| */)
    for (i = 1; i <= n; ++i) into[i] = swap(into[i], "\001", "\\|")
    return n
}

BEGIN {
    print ".\\\" -*- coding: UTF-8 -*-"
    print ".\\\" Made from README.md by docs/manpage.awk: change the README, not this page."
    print ".TH KAVORI-HOST 1 \"\" \"kavori-host " version "\" \"User Commands\""
    print ".SH NAME"
    print "kavori-host \\- show a web dialog of the Kavori PKCS#11 middleware"
    print ".SH SYNOPSIS"
    print ".B kavori-host"
    print "\\fB\\-url\\fR \\fIpage\\fR [\\fIoptions\\fR]"
    print ".SH DESCRIPTION"
    state = "intro"
}

# The description: the first paragraph after the title.
state == "intro" && /^# / { next }
state == "intro" && /^$/ { if (started) state = "skip"; next }
state == "intro" { started = 1; put(inline($0)); next }

/^## / {
    name = substr($0, 4)
    state = (name == "Command line" || name == "Calling the host") ? "copy" : "skip"
    if (state == "copy") { print ".SH " toupper(name); fresh = 1 }
    next
}
state != "copy" { next }

# A table: a heading row, a rule, then one .TP entry per row: the first
# cell bold, the second italic, the last as the text, and the cells
# between under their headings.
/^\|/ {
    if (!table) { heads = cells($0, head); table = 1; next }
    if ($0 ~ /^\|[- |]*$/) next
    n = cells($0, cell)
    print ".TP"
    put(inline(cell[1]) (cell[2] == "" ? "" : " \\fI" inline(cell[2]) "\\fR"))
    put(inline(cell[n]))
    for (k = 3; k < n; ++k) if (cell[k] != "") { print ".br"; put(head[k] ": " inline(cell[k])) }
    next
}
{ table = 0 }

/^$/ { if (code) print ".fi\n.RE"; code = 0; gap = 1; next }

# Indented code after a blank line (four spaces, or six within a list).
(gap || code) && /^    / {
    if (!code) print (item ? ".IP\n" : fresh ? "" : ".PP\n") ".RS 4\n.nf"
    line = $0
    sub(/^ +/, "", line)
    put(swap(escape(line), "-", "\\-"))
    code = 1
    fresh = 0
    next
}

/^- / { print ".IP \\(bu 2"; put(inline(substr($0, 3))); item = 1; gap = 0; fresh = 0; next }
gap && item && /^  / { print ".IP"; gap = 0 }
gap { if (!fresh) print ".PP"; item = 0; gap = 0 }
{
    line = $0
    sub(/^ +/, "", line)
    put(inline(line))
    fresh = 0
}

END {
    if (code) print ".fi\n.RE"
    print ".SH SEE ALSO"
    print "The README of the sources, for dialog authors and plug-in writers;"
    print "SECURITY.md, for what the host defends against."
}
