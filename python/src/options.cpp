// Options by their names.
#include <pybind11/stl.h>

#include "convert.h"

namespace tqnlp::python {

namespace {

struct Setter {
  const char* name;
  void (*set)(Options* options, py::handle value);
};

}  // namespace

template <class T>
static T as(py::handle value, const char* name, const char* wanted) {
  try {
    return value.cast<T>();
  } catch (const py::cast_error&) {
    throw py::type_error("options: " + std::string(name) + " must be " + wanted + ", not " +
                         std::string(py::repr(value)));
  }
}

static Technique technique_of(py::handle value) {
  const auto name = as<std::string>(value, "technique", "a name");
#define TQNLP_NAME(technique) \
  if (name == #technique) return Technique::technique;
  TQNLP_FACE_TECHNIQUES(TQNLP_NAME)
#undef TQNLP_NAME
  throw py::value_error("options: no technique has the name " + name);
}

static Differences differences_of(py::handle value) {
  const auto name = as<std::string>(value, "differences", "\"forward\" or \"central\"");
  if (name == "forward") return Differences::forward;
  if (name == "central") return Differences::central;
  throw py::value_error("options: differences must be \"forward\" or \"central\", not \"" + name +
                        "\"");
}

static Scaling scaling_of(py::handle value) {
  const auto name = as<std::string>(value, "scaling", "\"automatic\" or \"off\"");
  if (name == "automatic") return Scaling::automatic;
  if (name == "off") return Scaling::off;
  throw py::value_error("options: scaling must be \"automatic\" or \"off\", not \"" + name + "\"");
}

// The look of the user, and a look for signals where no function of his runs.
static std::function<bool(const Progress&)> make_progress(const py::dict& said,
                                                          const std::shared_ptr<Calls>& calls) {
  if (!said.contains("progress"))
    return [calls](const Progress&) {
      calls->watch.look();
      return true;
    };
  const auto body = make_held<py::object>(said["progress"]);
  return [calls, body](const Progress& at) {
    calls->watch.look();
    const Interpreter lock;
    const auto point = py::reinterpret_borrow<py::object>(calls->points.at(at.x));
    PyObject* answer = PyObject_CallFunction(body->ptr(), "Odlld", point.ptr(), at.objective,
                                             at.iteration, at.calls, at.gradient);
    if (answer == nullptr) throw py::error_already_set();
    const auto owned = py::reinterpret_steal<py::object>(answer);
    check_signals();
    return !owned.is(py::bool_(true));
  };
}

Session::Sink make_sink(const py::object& write) {
  if (write.is_none()) return {};
  const auto body = make_held<py::object>(write);
  return [body](std::string_view line) {
    const Interpreter lock;
    (*body)(py::str(line.data(), line.size()));
    check_signals();
  };
}

#define TQNLP_NUMBER(field)                                                                 \
  {                                                                                         \
#field, [](Options * o, py::handle v) { o->field = as<double>(v, #field, "a number"); } \
  }
#define TQNLP_CHOICE(field)                                                                \
  {                                                                                        \
#field, [](Options * o, py::handle v) { o->field = as<int>(v, #field, "an integer"); } \
  }
#define TQNLP_SWITCH(field)                                                                    \
  {                                                                                            \
#field, [](Options * o, py::handle v) { o->field = as<bool>(v, #field, "True or False"); } \
  }

static constexpr Setter SETTERS[] = {
    {"technique", [](Options* o, py::handle v) { o->technique = technique_of(v); }},
    TQNLP_NUMBER(objective_target),
    TQNLP_NUMBER(objective_tolerance),
    TQNLP_NUMBER(gradient_tolerance),
    TQNLP_NUMBER(step_tolerance),
    TQNLP_NUMBER(relative_objective_tolerance),
    TQNLP_NUMBER(predicted_reduction_tolerance),
    TQNLP_NUMBER(relative_gradient_tolerance),
    TQNLP_NUMBER(scaled_gradient_tolerance),
    TQNLP_NUMBER(relative_step_tolerance),
    TQNLP_NUMBER(objective_size),
    TQNLP_NUMBER(parameter_size),
    {"scaling", [](Options* o, py::handle v) { o->scaling = scaling_of(v); }},
    {"scale",
     [](Options* o, py::handle v) {
       o->scale = as<std::vector<double>>(v, "scale", "numbers, one a parameter");
     }},
    TQNLP_NUMBER(iterations),
    TQNLP_NUMBER(calls),
    TQNLP_NUMBER(seconds),
    {"differences", [](Options* o, py::handle v) { o->differences = differences_of(v); }},
    TQNLP_SWITCH(estimate_intervals),
    TQNLP_NUMBER(objective_digits),
    TQNLP_NUMBER(constraint_digits),
    TQNLP_CHOICE(update),
    TQNLP_CHOICE(line_search),
    TQNLP_CHOICE(hessian_scaling),
    TQNLP_CHOICE(version),
    TQNLP_SWITCH(start_from_hessian),
    TQNLP_NUMBER(initial_hessian),
    TQNLP_NUMBER(first_step),
    TQNLP_NUMBER(step_damping),
    TQNLP_NUMBER(line_search_accuracy),
    TQNLP_NUMBER(restart_after),
    TQNLP_NUMBER(feasibility_tolerance),
    TQNLP_NUMBER(singularity_tolerance),
    TQNLP_NUMBER(dependence_tolerance),
    TQNLP_SWITCH(check_derivatives),
    TQNLP_SWITCH(leave_saddles),
    TQNLP_SWITCH(analysis),
    TQNLP_SWITCH(check_result),
    TQNLP_CHOICE(report),
    {"sink",
     [](Options* o, py::handle v) { o->sink = make_sink(py::reinterpret_borrow<py::object>(v)); }},
    {"progress", [](Options*, py::handle) {}},
};
#undef TQNLP_NUMBER
#undef TQNLP_CHOICE
#undef TQNLP_SWITCH

std::vector<std::string> option_names() {
  std::vector<std::string> names;
  for (const Setter& row : SETTERS) names.emplace_back(row.name);
  return names;
}

Options make_options(const py::dict& said, const std::shared_ptr<Calls>& calls) {
  Options options;
  options.progress = make_progress(said, calls);
  for (const auto& [key, value] : said) {
    const auto name = key.cast<std::string>();
    bool known = false;
    for (const Setter& row : SETTERS) {
      if (name != row.name) continue;
      row.set(&options, value);
      known = true;
    }
    if (!known) throw py::value_error("options: no option has the name " + name);
  }
  return options;
}

}  // namespace tqnlp::python
