\src\*
\src\a