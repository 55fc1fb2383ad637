// engine
