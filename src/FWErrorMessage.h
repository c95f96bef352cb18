// The system's text for an error number: the one errno-to-text helper of the project.
#ifndef NORVANE_SRC_FWERRORMESSAGE_H_
#define NORVANE_SRC_FWERRORMESSAGE_H_

#include <string>

// The system's text for the error number (strerror) without leading or trailing white space.
// Thread-safe (strerror_r): the worker thread uses it too. Depends on nothing else of the
// framework, so that the string utilities and the file helpers can both report system errors.
std::string GetErrorMessage(int error);

#endif  // NORVANE_SRC_FWERRORMESSAGE_H_
