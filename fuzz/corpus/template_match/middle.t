/a/*/c
/a/b/x/c