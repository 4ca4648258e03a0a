# tidy.awk: makes scdoc's output what mandoc's lint asks for. scdoc sets a paragraph macro ahead of every block, where most
# have no effect, and keeps lines as long as their formatting makes them.

# Breaks a filled text line at a blank. No line may begin with what roff takes for a request.
function print_folded(line,    cut) {
    while (length(line) > 79) {
        for (cut = 79; cut > 1; --cut) {
            if (substr(line, cut, 1) == " " && substr(line, cut + 1, 1) !~ /[.'\\ ]/) {
                break
            }
        }
        if (cut <= 1) {
            break
        }
        print substr(line, 1, cut - 1)
        line = substr(line, cut + 1)
    }
    print line
}

# A paragraph macro is held back until the line behind it shows whether it has an effect.
/^\.P$/ {
    is_pending = 1
    next
}
{
    if (is_pending && !is_after_break && $0 !~ /^\.(SH|SS|RE|TS)/) {
        print ".P"
    }
    # Behind an indented block the paragraph begins at its end and not before it.
    is_pending = /^\.RE/ && is_pending
    is_after_break = /^\.(TH|SH|SS)/
}
/^\.TH/ {
    $2 = toupper($2)
}
/^[^.'T]/ {
    print_folded($0)
    next
}
{ print }
