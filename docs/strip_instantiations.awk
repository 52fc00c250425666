# Input filter of the reference build: blanks out `extern template`
# declarations (explicit instantiations, one line or several), which doxygen
# cannot match to the member templates they instantiate. Line numbers stay.
/^extern template/ { skip = 1 }
{
  if (skip) {
    print ""
    if ($0 ~ /;[[:space:]]*$/) skip = 0
  } else {
    print
  }
}
