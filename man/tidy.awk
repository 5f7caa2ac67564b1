# Leaves out the paragraph marks that scdoc writes where no paragraph begins, and breaks the long lines of
# filled text, so that nothing is left for 'mandoc -Tlint' to remark on.

function put(line) {
    if (pending && last !~ /^\.S[HS]/ && line !~ /^\.(S[HS]|RS)/) print ".P"
    pending = 0
    print line
    last = line
}

function put_filled(line,    at) {
    while (length(line) > 79) {
        at = 79
        while (at > 1 && (substr(line, at, 1) != " " || substr(line, at + 1, 1) ~ /[.' ]/)) --at
        if (at == 1) break
        put(substr(line, 1, at - 1))
        line = substr(line, at + 1)
    }
    put(line)
}

/^\.P$/ { pending = 1; next }
# The mark belongs behind the indented part.
/^\.RE/ { print; last = $0; next }
/^\.TH / { $2 = toupper($2) }
/^\.nf/ { literal = 1 }
/^\.fi/ { literal = 0 }
/^[.']/ || literal { put($0); next }
{ put_filled($0) }
