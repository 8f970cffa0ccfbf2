// The extension module pathfinder._pathfinder; the package pathfinder re-exports it.
#include "Binding.h"

#ifndef PATHFINDER_VERSION
#error "PATHFINDER_VERSION is set by python/CMakeLists.txt"
#endif

namespace {

PyObject* g_error = nullptr;  // pathfinder.Error, alive as long as the process

}  // namespace

PYBIND11_MODULE(_pathfinder, m) {
    namespace py = pybind11;
    m.doc() = "Pathfinder: the measuring system from Python (see the package pathfinder).";
    m.attr("__version__") = PATHFINDER_VERSION;

    // The classes are the package's: pathfinder.Session, not pathfinder._pathfinder.Session,
    // in help(), signatures and reprs.
    const py::object name = m.attr("__name__");
    m.attr("__name__") = "pathfinder";

    g_error = PyErr_NewExceptionWithDoc(
        "pathfinder.Error",
        "A failure of the measuring system: one line (the message of the pathfinder tool) and "
        "``code``, the tool's exit code (3 console missing or unreachable, 4 device, 5 input "
        "file, 7 output, 8 no data, ...).",
        PyExc_RuntimeError, nullptr);
    if (g_error == nullptr) {
        throw py::error_already_set();
    }
    m.attr("Error") = py::handle(g_error);
    py::register_exception_translator([](std::exception_ptr p) {
        try {
            if (p) {
                std::rethrow_exception(p);
            }
        } catch (const host::Error& e) {
            py::object error = py::reinterpret_borrow<py::object>(g_error)(e.what());
            error.attr("code") = static_cast<int>(e.code());
            PyErr_SetObject(g_error, error.ptr());
        }
    });

    pfpy::bindFrame(m);
    pfpy::bindScan(m);
    pfpy::bindSession(m);
    m.attr("__name__") = name;
}
