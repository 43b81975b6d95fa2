#pragma once

class InfectedItemsWindow;
class QXUtils;

// What the menu and toolbar rules read from the agent's controller.
class EnablingRulesDelegate
{
public:
    virtual ~EnablingRulesDelegate() = default;

    virtual bool startingUp() const = 0;
    virtual bool watching() const = 0;
    virtual QXUtils *utils() = 0;
    virtual InfectedItemsWindow *infectionListWindow() const = 0;
};
