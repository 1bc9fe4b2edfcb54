/src/*
/src/a/b