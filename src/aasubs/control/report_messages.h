// Numbers of the messages of group 549 that serve the reports: titles, labels and words of tables.
// The texts stand in the host's message table under the same numbers. Labels are short, without a
// full stop; messages of the log are whole sentences and stand under their plain numbers.
#pragma once

namespace tqnlp {

enum ReportMessage : int {
  // Marks of the iteration history.
  MARK_SEVERAL_LEFT = 42,        // several constraints left, the direction is feasible
  MARK_SEVERAL_LEFT_TRIED = 43,  // several left, or one could leave
  // Reasons in the status table that differ from the line of the log.
  REASON_NOT_RUN = 59,
  REASON_TIME = 603,
  REASON_TIME_IN_FULL = 604,
  REASON_LIMIT = 605,
  REASON_LIMIT_IN_FULL = 606,
  REASON_CRITERION = 608,
  REASON_VERTEX = 610,
  REASON_NEAR_CRITERION = 612,
  REASON_MODULE = 615,
  // Iteration history, start and stop.
  TITLE_HISTORY = 550,
  TITLE_START = 551,
  LABEL_ACTIVE = 552,
  LABEL_ACTIVE_AFTER_DROP = 553,
  LABEL_OBJECTIVE = 554,
  LABEL_LARGEST_GRADIENT = 555,
  LABEL_RADIUS = 556,
  LABEL_LARGEST_VIOLATION = 558,
  LABEL_LAGRANGIAN_GRADIENT = 559,
  TITLE_STOP = 569,
  LABEL_ITERATIONS = 570,
  LABEL_FUNCTION_CALLS = 571,
  LABEL_JACOBIAN_CALLS = 572,
  LABEL_GRADIENT_CALLS = 573,
  LABEL_HESSIAN_CALLS = 574,
  LABEL_RESTARTS = 575,
  LABEL_OBJECTIVE_GRADIENT = 581,
  LABEL_MERIT = 582,
  LABEL_LAMBDA = 584,
  LABEL_MERIT_OF_SIMPLEX = 585,
  LABEL_DEVIATION = 586,
  LABEL_SIMPLEX_DELTA = 587,
  LABEL_SIMPLEX_SIZE = 588,
  LABEL_RATIO = 589,
  LABEL_RIDGE = 590,
  LABEL_SLOPE = 591,
  // Problem description: labels.
  TITLE_PROBLEM = 628,
  TITLE_OPTIONS = 629,
  LABEL_TECHNIQUE = 630,
  LABEL_UPDATE = 631,
  LABEL_VERSION = 89,
  LABEL_LINE_SEARCH = 632,
  LABEL_GRADIENT = 633,
  LABEL_JACOBIAN = 634,
  LABEL_CROSSPRODUCT = 635,
  LABEL_HESSIAN = 636,
  LABEL_CONSTRAINT_JACOBIAN = 637,
  LABEL_INTERVALS = 638,
  LABEL_PARAMETERS = 639,
  LABEL_LOWER_BOUNDS = 640,
  LABEL_UPPER_BOUNDS = 641,
  LABEL_LINEAR = 642,
  LABEL_NONLINEAR = 643,
  LABEL_NONLINEAR_EQUALITIES = 644,
  LABEL_HESSIAN_FORM = 645,
  // Problem description: words.
  WORD_SPARSE = 626,
  WORD_DIAGONAL = 627,
  WORD_FORWARD = 646,
  WORD_CENTRAL = 647,
  WORD_HESSIAN_DIFFERENCES = 647,  // plus the thousands digit of fidi: 648..651
  WORD_INTERVALS = 651,            // plus cfdh: 652..654
  WORD_NO_LIMIT = 655,
  // Options.
  LABEL_MAX_ITERATIONS = 657,
  LABEL_MAX_CALLS = 658,
  LABEL_MAX_SECONDS = 659,
  LABEL_CRITERION = 659,  // plus the code of the criterion: 660..668
  LABEL_FSIZE = 669,
  LABEL_XSIZE = 670,
  // Result tables.
  TEXT_START_ESTIMATES = 147,
  TEXT_FINAL_ESTIMATES = 148,
  TEXT_SECOND_ORDER_MULTIPLIERS = 155,
  TEXT_MULTIPLIERS = 156,
  TEXT_PROJECTED_GRADIENT = 159,
  TITLE_START_ESTIMATES = 719,
  TITLE_FINAL_ESTIMATES = 720,
  TITLE_MULTIPLIERS = 721,
  TITLE_PROJECTED_GRADIENT = 722,
  TITLE_INTERVALS = 723,
  TEXT_INTERVALS = 724,
  WORD_CONSTANT = 725,
  TITLE_LINEAR_START = 726,
  TITLE_LINEAR_SOLUTION = 727,
  TITLE_LINEAR_DUPLICATES = 728,
  TITLE_LINEAR_DEPENDENT_REMOVED = 729,
  TITLE_DEPENDENT_BOUNDS = 730,
  TITLE_DEPENDENT_LINEAR = 731,
  TITLE_DEPENDENT_NONLINEAR = 732,
  TITLE_DEPENDENT_GRADIENTS = 733,
  TITLE_NONLINEAR_START = 734,
  TITLE_NONLINEAR_SOLUTION = 735,
  TEXT_LINEAR = 736,
  TEXT_LINEAR_RESIDUALS = 737,
  TEXT_REMOVED = 738,
  TEXT_DEPENDENT = 739,
  TITLE_STATUS = 740,
  TITLE_PARAMETERS_ON_THE_WAY = 741,
  TEXT_FUNCTIONS = 742,
  // Words that a number of the record selects.
  WORD_TECHNIQUE = 900,            // plus tech: 901..921
  WORD_TECHNIQUE_COBYLA = 922,     // technique 14 with nonlinear constraints
  WORD_TECHNIQUE_SQP = 923,        // technique 11 with nonlinear constraints
  WORD_TECHNIQUE_BARRIER = 924,    // technique 16 in its barrier form
  WORD_UPDATE = 930,               // plus tupd of techniques 9, 11, 12: 931, 932
  WORD_UPDATE_OF_INVERSE = 932,    // plus tupd of technique 10: 933, 934
  WORD_CONJUGATE_DIRECTION = 934,  // plus tupd of technique 13: 935..938
  WORD_LINE_SEARCH = 940,          // plus tlin: 941..948, 952
};

}  // namespace tqnlp
