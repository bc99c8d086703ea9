# Writes OUTPUT, a C++ source that defines fxm::NAME as the text of INPUT.
file(READ ${INPUT} text)
file(WRITE ${OUTPUT} "namespace fxm {\nextern const char *const ${NAME} = R\"~~(")
# A literal has a limit in some compilers, and adjacent literals are one.
string(LENGTH "${text}" length)
set(at 0)
while(at LESS length)
    string(SUBSTRING "${text}" ${at} 8000 piece)
    file(APPEND ${OUTPUT} "${piece})~~\"\nR\"~~(")
    math(EXPR at "${at} + 8000")
endwhile()
file(APPEND ${OUTPUT} ")~~\";\n}\n")
