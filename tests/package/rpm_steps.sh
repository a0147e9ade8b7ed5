rpm_steps() { :; }
