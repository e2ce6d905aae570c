// The face of the system that a source file is compiled for. Each face owns a
// copy of the code in common/ and of its state; an inline namespace per face
// keeps the copies apart where both are linked statically into one program.
#pragma once

#ifndef TTYLINE_FACE
#error "TTYLINE_FACE names the face this file is compiled for"
#endif
