# Doxygen's input filter. In the headers a comment holds for every declaration down to the next empty
# line, while Doxygen wants one before each. Defaulted members are left out.

/ = default;$/ { print ""; next }

/^ *\/\/\/ / {
  if (!commenting) comment = ""
  commenting = 1
  comment = comment " " substr($0, index($0, "///") + 3)
  print
  next
}

{
  if (begins && !commenting && comment != "" && /[^ ]/ && !/\/\/\/</) printf "/**%s */", comment
  begins = /;( *\/\/.*)?$/
  # A new scope, or the end of the paragraph.
  if (/^ *$/ || /[{:]$/) comment = ""
  commenting = 0
  print
}
