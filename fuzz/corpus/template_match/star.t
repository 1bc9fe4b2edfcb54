*.txt
x/a.txt