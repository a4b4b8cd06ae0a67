// Human-readable text of a property-list value for log lines, in the familiar
// "{ key = value; }" / "( a, b )" form. Long strings and large containers are
// shortened so that a hostile message cannot flood the log.
//
// Threads: any. Pure function.
#pragma once

#include <QString>
#include <QVariant>

namespace brix {

struct DescribeLimits {
    int maxStringChars = 1000;
    int maxElements = 100;
    int maxDepth = 16;
};

QString describe(const QVariant &value, const DescribeLimits &limits = {});

} // namespace brix
