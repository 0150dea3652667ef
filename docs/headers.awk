# Turns the comments of a public header into documentation that Doxygen reads:
# - what stands over the include guard describes the family, a group named for the header;
# - a line "// --- Title ---" and the comment right under it open a section of the group;
# - a comment belongs to the declaration under it, and to the functions that follow that without a blank line;
# - a comment behind a declaration belongs to that declaration;
# - what stands in the bodies of functions belongs to nothing.

# The text as Doxygen has to see it: what is no code keeps its backslashes and angle brackets.
function plain(text,    parts, count, i, result) {
    if (text ~ /^    /)
        return text
    count = split(text, parts, "`")
    for (i = 1; i <= count; i++) {
        if (i % 2 == 1) {
            gsub(/\\/, "&&", parts[i])
            gsub(/</, "\\<", parts[i])
        }
        result = result (i > 1 ? "`" : "") parts[i]
    }
    return result
}
function textOf(comment) {
    sub(/^ *\/\/ ?/, "", comment)
    return plain(comment)
}
function closeSection() {
    if (inSection)
        print "/// @}"
    inSection = 0
}
# Ends the comment block that was being collected and prints it.
function flushBlock() {
    if (titling) {
        print "/// @name " title
        printf "%s", block
        print "/// @{"
        inSection = 1
        shared = ""
    } else if (block != "") {
        printf "%s", block
        shared = block
        fresh = 1
    }
    titling = 0
    block = ""
}

BEGIN { head = 1 }

head && /^\/\// {
    if (NR == 1) {
        family = FILENAME
        face = family ~ /kal\/cpp\// ? "cpp_" : ""
        sub(/.*\//, "", family)
        sub(/\.h$/, "", family)
        name = substr($0, 4)
        sub(/[:.].*/, "", name)
        print "/// @file"
        print "/// @defgroup " face family " " name
    }
    print "/// " textOf($0)
    next
}
head {
    head = 0
    print "/// @{"
}

inBody { print; if (index($0, indent "}") == 1) inBody = 0; next }

/^\/\/ --- / {
    flushBlock()
    closeSection()
    title = $0
    sub(/^\/\/ --- */, "", title)
    sub(/ *-*$/, "", title)
    titling = 1
    next
}
/^ *\/\// {
    if (trailing && match($0, /\/\//) > 20) # goes on with the comment behind the line above
        print "///< " textOf($0)
    else
        block = block "/// " textOf($0) "\n"
    next
}
{ flushBlock() }
/^#/ { print; next }
/^ *$/ { shared = ""; print; next }
{
    code = $0
    comment = ""
    trailing = match($0, / \/\/ /)
    if (trailing) {
        code = substr($0, 1, RSTART - 1)
        comment = " ///< " plain(substr($0, RSTART + 4))
    }
    isTemplate = code ~ /^ *template </
    isClass = code ~ /^ *(class|struct) /
    isFunction = !isClass && (open || isTemplate || (code ~ /\(/ && code !~ /static_assert|using /))
    if (isFunction && !open) {
        indent = code
        sub(/[^ ].*/, "", indent)
        if (!fresh)
            printf "%s", shared
    }
    print code comment
    open = isFunction && code !~ /[;{}] *$/
    fresh = 0
    if (!isFunction)
        shared = ""
    if (isFunction && code ~ /\{ *$/)
        inBody = 1
}
END {
    closeSection()
    print "/// @}"
}
